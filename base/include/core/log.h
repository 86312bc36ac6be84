// The log: what operators and users are told, in their language, as opposed to the trace, which is
// for developers. A message becomes a log image: one record that carries number, level, origin, the
// format as it was written and the arguments as text, so that a reader shows it in any language
// (docs/formats.md has the bytes, docs/logging.md the ways that a record can take).
//
// Logging never fails visibly: a record that cannot be made or delivered is traced and dropped,
// and errno stays as it was.
#pragma once

#include <cstdarg>

#include "core/msgbase.h"
#include "core/object.h"
#include "core/types.h"

// A log image on its way, descriptor "d;".
constexpr int32 logdMessageMagic = ObjMagic(0xCAA8CD42);
struct logdMessageS {
    ObjDataFieldT tLogEntry;
};
using logdMessageO = logdMessageS*;
extern ObjTemplateT gtObjTemplateLogdMessage;

// Which entries a reader wants, descriptor "b;u;i;i;o;o;i;i;b;s;b;".
constexpr int32 logdCriteriaMagic = ObjMagic(0xCA94B52D);
struct logdCriteriaS {
    BooleanT bSession;  // tSessionId counts
    UniqueT tSessionId;
    int32 lJobId;
    int32 lWarningLevels;
    ListO oClasses;  // held; may be null
    ListO oClients;  // held; may be null
    TimeT tStart;
    TimeT tStop;
    BooleanT bOperatorOnly;
    char* pstrText;  // owned; may be null
    BooleanT bThisSessionOnly;
};
using logdCriteriaO = logdCriteriaS*;

// A query for the log daemon, descriptor "b;i;o;s;".
constexpr int32 logdRequestEntriesMagic = ObjMagic(0xCAB70538);
struct logdRequestEntriesS {
    BooleanT bNewFirst;
    int32 lMaxEntries;
    logdCriteriaO oCriteria;  // held
    char* pstrSource;         // owned
};
using logdRequestEntriesO = logdRequestEntriesS*;

// Delivers a message in the place of messaging; the object stays the log's.
using LogSendCallbackFnT = BooleanT (*)(MsgAddressO oAddress, MsgTypeT tMsgType,
                                        logdMessageO oMessage);

struct TesselContextLogS {
    const char* pstrLogClass;           // name stamped into each record, the program's
    const char* pstrCatalog;            // directory of the catalogue, owned; null: built-in texts
    MsgAddressO oLogAddress;            // log daemon, held
    BooleanT bLogDirect;                // write to the direct-log file
    BooleanT bLogToSelf;                // send to the own process
    MapO oLocale;                       // catalogue entries read so far
    LogSendCallbackFnT fnSendCallback;  // may be null
};

BooleanT LogInitialize();
BooleanT LogInitializeThread(TesselContextT* ptTlContext);
void LogReleaseThread(TesselContextT* ptTlContext);

// --- warning levels: each name serves up to its number ---

enum LogLevelE : int32 {
    eLogLevelBackground = 16,
    eLogLevelInformation = 32,
    eLogLevelJobMessage = 48,
    eLogLevelStartup = 64,
    eLogLevelWarning = 80,
    eLogLevelError = 96,
    eLogLevelSevereError = 112,
    eLogLevelUnknown = 127,
};
constexpr int32 LogOperatorBit = 0x80;  // added to a level: the message is for the operator

const char* LogGetWarningLevelString(int32 lWarnLevel);  // in the language in use; the library's
// A new list of integer objects, the caller's; null on failure.
void LogListWarningLevels(ListO* poList);

// --- logging ---

// The number of a message of a class of messages, which has a catalogue of its own from class 1000
// on.
constexpr int32 LogNumber(int32 lClass, int32 lMessage) { return lClass * 100000 + lMessage; }

// The format is of 1 to 254 bytes and takes %d (int), %ld (long; other integers behind the l count
// as d), %s and %%. Texts are cut to 254 bytes. Any other conversion is shown as "??????"; behind
// one whose argument has no known width (%5d, %hd, %*d) all the rest are too. A session, which may
// be null, ties the message to a job. A level outside 0 to 255 counts as unknown.
void LogMessage(int32 lLogId, int32 lWarningLevel, const UniqueT* ptSessionId,
                const char* pstrMessageFormat, ...) __attribute__((format(printf, 4, 5)));
// With an object attached, which may be null; it is dropped when the image grows above 65,535 bytes
// with it.
void LogMessageWithContext(int32 lLogId, int32 lWarningLevel, const UniqueT* ptSessionId,
                           void* oContext, const char* pstrMessageFormat, ...)
    __attribute__((format(printf, 5, 6)));
void LogMessageVa(int32 lLogId, int32 lWarningLevel, const UniqueT* ptSessionId, void* oContext,
                  const char* pstrMessageFormat, std::va_list tArgs)
    __attribute__((format(printf, 5, 0)));

// The message object alone, the caller's. FALSE, with null, when it cannot be made.
BooleanT LogMessageWithContextObject(logdMessageO* poLogMessage, int32 lLogId, int32 lWarningLevel,
                                     const UniqueT* ptSessionId, void* oContext,
                                     const char* pstrMessageFormat, ...)
    __attribute__((format(printf, 6, 7)));
BooleanT LogMessageVaBuildObject(logdMessageO* poLogMessage, int32 lLogId, int32 lWarningLevel,
                                 const UniqueT* ptSessionId, void* oContext,
                                 const char* pstrMessageFormat, std::va_list tArgs)
    __attribute__((format(printf, 6, 0)));

// --- where messages go: file, own process, callback or daemon, the first of them that is set ---

// The name of the program's part that logs, at most 254 bytes, kept by reference; returns the last.
const char* LogSetClass(const char* pstrClass);
void LogSetToSelf(BooleanT bLocal);
void LogSetSendCallback(LogSendCallbackFnT fnSendCallback);  // null ends it
// On a server ("server" of "details" in "configure.cfg") the daemon of this machine, else the file.
void LogLocally();
// The daemon of the address's machine, and no longer the file. FALSE, with no daemon set, for an
// address without a machine.
BooleanT LogSetAddress(MsgAddressO oProcAddr);
BooleanT LogGetAddress(MsgAddressO* poAddress);  // a new holder; FALSE when there is none
void LogUnsetAddress();                          // no daemon: messages go to the file

// --- reading log images ---

// TRUE when lSize bytes from outside begin with a whole, well-formed image. The operations below
// take images for which this holds. Texts and objects that they return are the caller's.
BooleanT LogIsImage(const ByteT* ptLogImage, int32 lSize);
// The message's image, which stays its own; null when it is none.
ByteT* LogGetRawImage(logdMessageO oMessage);
int32 LogGetRecordSize(const ByteT* ptLogImage);
TimeT LogGetTimeStamp(const ByteT* ptLogImage);
void LogSetTimeStamp(ByteT* ptLogImage, TimeT tTime);
int32 LogGetLogId(const ByteT* ptLogImage);
int32 LogGetWarnLevel(const ByteT* ptLogImage);
BooleanT LogIsOperatorMsg(const ByteT* ptLogImage);
BooleanT LogHasSessionId(const ByteT* ptLogImage);
BooleanT LogGetSessionId(UniqueT* ptSessionId, const ByteT* ptLogImage);
int32 LogGetJobId(const ByteT* ptLogImage);  // 0 without a session
char* LogGetClientString(const ByteT* ptLogImage);
char* LogGetClassString(const ByteT* ptLogImage);
BooleanT LogHasObject(const ByteT* ptLogImage);
BooleanT LogGetObject(void** poObject, const ByteT* ptLogImage);

// --- text, in the language chosen ---

// "UK English", in any case, and null choose the built-in texts; any other language is that of
// "locale/<language>/logs" in the home directory. FALSE, with the built-in texts, when it has no
// catalogue "logs.ctl".
BooleanT LogSetLocale(const char* pstrLocale);
// The format, or the catalogue's text for the number, with the arguments in order in the places of
// its conversions. A place holder behind the last argument stays as it is written.
char* LogGetStringFromImage(const ByteT* ptLogImage);
// The same; null when pstrMatch is not null and does not occur in it.
char* LogGetLogString(const ByteT* ptLogImage, const char* pstrMatch);

// --- queries ---

logdCriteriaO LogNewCriteria();  // all fields 0 and null; the caller's
// Holds the criteria, which may be null, and copies the text; the caller's, null on failure.
logdRequestEntriesO LogBuildRequest(BooleanT bNewFirst, int32 lMaxEntries, logdCriteriaO oCriteria,
                                    const char* pstrSource);
