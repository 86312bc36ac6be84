// Object maps: sorted arrays of held objects of one class.
#pragma once

#include "core/types.h"

BooleanT ObjMapInitialize();
BooleanT ObjMapInitializeThread(TesselContextT* ptTlContext);
void ObjMapReleaseThread(TesselContextT* ptTlContext);
