// "HomogeneousTransform": registration of the class in host/geometry/HomogeneousTransform.h.
#include "host/geometry/HomogeneousTransform.h"

ZELTRIM_PEER_OBJECT(L"HomogeneousTransform", CHomogeneousTransform);

const tagREFString CHomogeneousTransform::m_ObjectName = {20, L"HomogeneousTransform"};
