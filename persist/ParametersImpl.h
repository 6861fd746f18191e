// The parameter collection template, IParametersImpl<T, I>, whole: its operations on the
// items (ParametersCollection.h) and its CSV, XML and folder stream forms. Include this
// header, not the parts, wherever the template is instantiated.
#pragma once

#include "persist/ParametersCollection.h"
#include "persist/ParametersCsv.h"
#include "persist/ParametersFolder.h"
#include "persist/ParametersXml.h"
