// What writer, reader and whole streams of objects share. Private to the library.
#pragma once

#include "core/map.h"
#include "core/objserial.h"
#include "core/trace.h"
#include "core/types.h"
#include "longbytes.h"

// Lead byte of an object reference.
enum ObjLocationTypeE : ByteT {
    eObjLocationNull = 0,
    eObjLocationSingle = 1,       // held by one holder: body follows
    eObjLocationSharedFirst = 2,  // map id and body follow
    eObjLocationSharedAgain = 3,  // map id follows
};

constexpr int32 StnzTitleSize = 1024;  // full title of a stanza with its terminator
constexpr int32 ObjMapGrowth = 16;

// Memory sinks and sources. The cookie is the address of a position pointer, or of a 64-bit count.
BooleanT ObjWriteToMemory(void* pCookie, void* pBuffer, int32 lSize);
BooleanT ObjWriteToCounter(void* pCookie, void* pBuffer, int32 lSize);
BooleanT ObjReadFromMemory(void* pCookie, void* pBuffer, int32 lSize);

// Enters a shared object in the stream's map, made on first use. FALSE when the key is in it
// already.
BooleanT ObjEnterInMap(ObjSerialStreamT tStream, int32 lMapId, void* oObject, MapLocateFnT fnLocate,
                       MapReleaseFnT fnRelease);

// Counts one more object inside another while it lives.
class ObjDepthGuard {
 public:
    explicit ObjDepthGuard(ObjSerialStreamT tStream) : m_tStream(tStream) { m_tStream->lDepth++; }
    ~ObjDepthGuard() { m_tStream->lDepth--; }
    ObjDepthGuard(const ObjDepthGuard&) = delete;
    ObjDepthGuard& operator=(const ObjDepthGuard&) = delete;
    bool TooDeep() const { return m_tStream->lDepth > ObjMaximumDepth; }

 private:
    ObjSerialStreamT m_tStream;
};
