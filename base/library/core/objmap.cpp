// Object maps: sorted arrays of held objects of one class.
#include "core/objmap.h"

BooleanT ObjMapInitialize() { return TRUE; }

BooleanT ObjMapInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void ObjMapReleaseThread(TesselContextT* /*ptTlContext*/) {}
