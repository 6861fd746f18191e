// Checked loading and saving of the module's calibration files, for any host program.
//
// The module's archive reads whatever it is given: it reports success from an XML load
// whatever the object made of the text, and from a folder-stream save whatever the write
// did, and it cuts file names longer than 254 bytes of UTF-8. These functions check a file
// before the module reads it and after it wrote one, and say in one line what is wrong.
// Loading and saving make the file name a host "CreatableString" through the global
// component collection. A relative path is taken from the working folder.
#pragma once

#include <string>

#include "frame/Object.h"

namespace client {

// The form a path names, as the module chooses it: the first letter of the text after the
// last '.' (the whole path when it has no '.' past its first character), any case.
enum class FileForm { kNone, kXML, kFolder };
FileForm FormOfPath(const std::string& path);

struct FileReport {
  bool ok = false;
  std::string problem;      // when !ok: what is wrong, one line, without the path
  std::wstring objectName;  // the object the file holds, when it could be read
};

// Checks the file at `path` without loading it: a path the module opens as given (UTF-8,
// at most 254 bytes), a regular file that is not empty and can be read, the form its
// extension names, well-formed XML (16-bit with its byte order mark, or UTF-8) or a sound
// folder stream (header, length, checksum, then the whole tree as the host's folder
// stream reads it), holding an object named `expected`
// (any object when `expected` is empty).
FileReport CheckFile(const std::string& path, const std::wstring& expected);

// Checks the file for the object's own class (its IObjectInfo name), then loads it
// through the object's IFileArchive. The object is not touched when the check fails.
// An object without IFileArchive that answers IDataPersist is loaded by the host's own
// streams from the same two forms, which SaveFile writes for it.
FileReport LoadFile(IComponentCollection* components, IUnknown* object, const std::string& path);

// What keeps a save to `path` from working, found before anything is written: a path the
// module would cut or change, a folder that is missing or not writable, a folder or device
// at the path. Empty when nothing does. SaveFile runs the same check first.
std::string SavePathProblem(const std::string& path);

// Saves the object through its IFileArchive, then checks that the file is there and, for
// the XML and folder forms, that it passes CheckFile for the object's class. An existing
// file is moved aside for the save and put back when the save fails; a new file that
// fails the check is removed. Paths the module would cut or change are refused before
// anything is written.
FileReport SaveFile(IComponentCollection* components, IUnknown* object, const std::string& path);

}  // namespace client
