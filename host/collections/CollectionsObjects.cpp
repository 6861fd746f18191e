// Objects of the "Collections" module that are defined in host/common, so that every
// peer can make them directly; only this module hands them out by name.
#include "host/common/HostString.h"
#include "host/common/HostVariant.h"
#include "host/common/PeerModule.h"

ZELTRIM_PEER_OBJECT(L"CreatableString", CHostString);
ZELTRIM_PEER_OBJECT(L"Variant", CHostVariant);
