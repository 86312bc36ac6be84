// Configuration that another machine keeps. A process that works for another machine, its client,
// asks the configuration server (process 13) of the machine that holds the client's configuration;
// cfgutil.h says when, and cfg.h calls the operations here then.
//
// A call is one request and one reply, and nothing remains of it. The caller waits for the reply
// for 30 seconds at most; other messages are handled meanwhile (msgwait.h). No reply in that time,
// a reply of another class or without what was asked for, and a reply that says FALSE all give
// FALSE, traced.
//
// On the server a client's files lie in "gui/CachedPits/CLIENT/config" below the home directory, or
// in the directory that the request names as its alternative path. A name that would lead out of
// the home directory is refused: a client that is not one component of a path, and ".." in the file
// or the alternative path. Within the home directory a request may name any file: who may send
// messages to a configuration server may change it.
#pragma once

#include "core/object.h"
#include "core/stnzbase.h"
#include "core/types.h"

constexpr int32 CfgSvrReplySeconds = 30;

// What a request asks for; what it carries stands behind. Every request has client and file.
enum CfgSvrReqTypeE : int32 {
    eCfgSvrReqGetKey = 1,              // title, keyword; the reply has a key
    eCfgSvrReqAddKey = 2,              // title, keyword, value: text or list; sets the item
    eCfgSvrReqRemoveKey = 3,           // title, keyword
    eCfgSvrReqGetStanza = 4,           // title; the reply has a stanza
    eCfgSvrReqGetStanzaList = 5,       // the reply has a stanza list
    eCfgSvrReqReplaceStanzaList = 6,   // stanza list
    eCfgSvrReqAddStanza = 7,           // stanza
    eCfgSvrReqReplaceStanza = 8,       // stanza
    eCfgSvrReqRemoveStanza = 9,        // title; category, which may be null
    eCfgSvrReqAddEntry = 10,           // title, keyword, text, both switches; the reply has a list
    eCfgSvrReqRemoveEntry = 11,        // title, keyword, text, bNoCase; the reply has a list
    eCfgSvrReqAddValueToKey = 12,      // title, keyword, text
    eCfgSvrReqRemoveValueFromKey = 13  // title, keyword, text
};

// --- what travels. An object that has arrived is of its class and nothing more: any field may be
// null, any object of another class than the field is meant for, any number wrong ---

constexpr int32 CfgStnzKeyMagic = ObjMagic(0xca502209);
constexpr char CfgStnzKeyDescriptor[] = "s;i;i;o;o;";
struct CfgStnzKeyS {  // a key
    char* pstrKeyword;
    int32 lValueCount;
    int32 lMaxValueCount;
    ListO oValueList;  // of string objects, in order
    ListO oExt;        // reserved
};
using CfgStnzKeyO = CfgStnzKeyS*;

constexpr int32 CfgStnzMagic = ObjMagic(0xca562849);
constexpr char CfgStnzDescriptor[] = "s;s;i;i;o;o;";
struct CfgStnzS {  // a stanza
    char* pstrCatagory;
    char* pstrTitle;
    int32 lKeyCount;
    int32 lMaxKeyCount;
    ListO oKeys;  // of CfgStnzKeyO, in order
    ListO oExt;   // reserved
};
using CfgStnzO = CfgStnzS*;

constexpr int32 CfgSvrConfigRequestMagic = ObjMagic(0xca568cb2);
constexpr char CfgSvrConfigRequestDescriptor[] = "i;s;s;s;s;s;s;o;s;o;o;b;b;b;o;";
struct CfgSvrConfigRequestS {
    int32 lReqType;        // CfgSvrReqTypeE
    char* pstrClientName;  // machine whose configuration is meant
    char* pstrStanzaCatagory;
    char* pstrStanzaFile;
    char* pstrStanzaTitle;
    char* pstrStanzaKeyword;
    char* pstrAltPath;  // directory of the file on the server; null for the client's own
    void* oValue;       // string object, or a list of them
    char* pstrValue;    // reserved
    CfgStnzO oStanza;
    ListO oStanzaList;  // of stanza objects
    BooleanT bReplace;  // reserved
    BooleanT bUnique;
    BooleanT bNoCase;
    ListO oExt;  // may hold a unique identifier (ObjUniqueO), by which the client knows the reply
};
using CfgSvrConfigRequestO = CfgSvrConfigRequestS*;

constexpr int32 CfgSvrConfigReplyMagic = ObjMagic(0xc9782957);
constexpr char CfgSvrConfigReplyDescriptor[] = "i;b;o;o;o;o;";
struct CfgSvrConfigReplyS {
    int32 lReqType;     // of the request
    BooleanT bSuccess;  // the operation's result
    CfgStnzKeyO oStnzKey;
    CfgStnzO oStanza;
    ListO oValueList;  // stanza list, or the value list as it is now
    ListO oExt;        // the identifier of the request, where it had one
};
using CfgSvrConfigReplyO = CfgSvrConfigReplyS*;

// --- asking. Keys, stanzas and strings that come back are the caller's, lists a new holder. A
// missing item gives the default and FALSE, as in cfg.h ---

BooleanT CfgSvrGetKey(StnzKeyT** ppKey, const char* pstrClient, const char* pstrServer,
                      const char* pstrStanzaFile, const char* pstrStanzaTitle,
                      const char* pstrStanzaKeyword, const char* pstrAltPath);
BooleanT CfgSvrGetString(char** ppstrValue, const char* pstrClient, const char* pstrServer,
                         const char* pstrStanzaFile, const char* pstrStanzaTitle,
                         const char* pstrKeyword, const char* pstrAltPath, const char* pstrDefault);
BooleanT CfgSvrGetInteger(int32* plValue, const char* pstrClient, const char* pstrServer,
                          const char* pstrStanzaFile, const char* pstrStanzaTitle,
                          const char* pstrKeyword, const char* pstrAltPath, int32 lDefault);
BooleanT CfgSvrGetInt64(int64* pllValue, const char* pstrClient, const char* pstrServer,
                        const char* pstrStanzaFile, const char* pstrStanzaTitle,
                        const char* pstrKeyword, const char* pstrAltPath, int64 llDefault);
BooleanT CfgSvrGetBoolean(BooleanT* pbValue, const char* pstrClient, const char* pstrServer,
                          const char* pstrStanzaFile, const char* pstrStanzaTitle,
                          const char* pstrKeyword, const char* pstrAltPath, BooleanT bDefault);
BooleanT CfgSvrGetValueList(ListO* poValueList, const char* pstrClient, const char* pstrServer,
                            const char* pstrStanzaFile, const char* pstrStanzaTitle,
                            const char* pstrKeyword, const char* pstrAltPath);

// oValue: a string object, or a list of them.
BooleanT CfgSvrSetKey(const char* pstrClient, const char* pstrServer, const char* pstrStanzaFile,
                      const char* pstrStanzaTitle, const char* pstrKeyword, const char* pstrAltPath,
                      void* oValue);
BooleanT CfgSvrSetString(const char* pstrClient, const char* pstrServer, const char* pstrStanzaFile,
                         const char* pstrStanzaTitle, const char* pstrKeyword,
                         const char* pstrAltPath, const char* pstrValue);
BooleanT CfgSvrSetInteger(const char* pstrClient, const char* pstrServer,
                          const char* pstrStanzaFile, const char* pstrStanzaTitle,
                          const char* pstrKeyword, const char* pstrAltPath, int32 lValue);
BooleanT CfgSvrSetInt64(const char* pstrClient, const char* pstrServer, const char* pstrStanzaFile,
                        const char* pstrStanzaTitle, const char* pstrKeyword,
                        const char* pstrAltPath, int64 llValue);
BooleanT CfgSvrSetBoolean(const char* pstrClient, const char* pstrServer,
                          const char* pstrStanzaFile, const char* pstrStanzaTitle,
                          const char* pstrKeyword, const char* pstrAltPath, BooleanT bValue);
BooleanT CfgSvrSetValueList(const char* pstrClient, const char* pstrServer,
                            const char* pstrStanzaFile, const char* pstrStanzaTitle,
                            const char* pstrKeyword, const char* pstrAltPath, ListO oValueList);

BooleanT CfgSvrGetStanza(StnzT** ppStanza, const char* pstrClient, const char* pstrServer,
                         const char* pstrStanzaFile, const char* pstrStanzaTitle,
                         const char* pstrAltPath);
BooleanT CfgSvrGetStanzaList(ListO* poList, const char* pstrClient, const char* pstrServer,
                             const char* pstrStanzaFile, const char* pstrAltPath);
BooleanT CfgSvrReplaceStanzaList(const char* pstrClient, const char* pstrServer,
                                 const char* pstrStanzaFile, const char* pstrAltPath, ListO oList);
BooleanT CfgSvrAddStanza(const char* pstrClient, const char* pstrServer, const char* pstrStanzaFile,
                         const char* pstrAltPath, StnzT* pStanza);
BooleanT CfgSvrReplaceStanza(const char* pstrClient, const char* pstrServer,
                             const char* pstrStanzaFile, const char* pstrAltPath, StnzT* pStanza);
BooleanT CfgSvrRemoveStanza(const char* pstrClient, const char* pstrServer,
                            const char* pstrCatagory, const char* pstrTitle,
                            const char* pstrStanzaFile, const char* pstrAltPath);
BooleanT CfgSvrRemoveKey(const char* pstrClient, const char* pstrServer, const char* pstrStanzaFile,
                         const char* pstrStanzaTitle, const char* pstrKeyName,
                         const char* pstrAltPath);

// The list as it is now comes back through poValueList, which may be null.
BooleanT CfgSvrAddEntryToValueList(ListO* poValueList, const char* pstrClient,
                                   const char* pstrServer, const char* pstrStanzaFile,
                                   const char* pstrStanzaTitle, const char* pstrKeyword,
                                   const char* pstrEntry, BooleanT bUnique, BooleanT bNoCase,
                                   const char* pstrAltPath);
BooleanT CfgSvrRemoveEntryFromValueList(ListO* poValueList, const char* pstrClient,
                                        const char* pstrServer, const char* pstrStanzaFile,
                                        const char* pstrStanzaTitle, const char* pstrKeyword,
                                        const char* pstrEntry, BooleanT bNoCase,
                                        const char* pstrAltPath);
BooleanT CfgSvrAddValueToKey(const char* pstrClient, const char* pstrServer,
                             const char* pstrStanzaFile, const char* pstrStanzaTitle,
                             const char* pstrKeyName, const char* pstrValue,
                             const char* pstrAltPath);
BooleanT CfgSvrRemoveValueFromKey(const char* pstrClient, const char* pstrServer,
                                  const char* pstrStanzaFile, const char* pstrStanzaTitle,
                                  const char* pstrKeyName, const char* pstrValue,
                                  const char* pstrAltPath);

// What all of them do: sends the request, as one of that type, and gives the reply that says TRUE,
// the caller's.
BooleanT CfgSvrSendConfigRequest(CfgSvrConfigReplyO* poReply, CfgSvrConfigRequestO oRequest,
                                 const char* pstrServer, int32 lReqType);

// --- answering ---

// Carries a request out, which may be null or anything that a message has brought. There is always
// a reply, the caller's, to be sent back as CFG_SVR_CONFIG_REPLY_MSG (without memory for it,
// *poReply is null). The result is the reply's bSuccess.
BooleanT CfgSvrProcessConfigRequest(CfgSvrConfigReplyO* poReply, CfgSvrConfigRequestO oConfigReq);

// --- keys and stanzas as objects and back; what comes back is the caller's ---

BooleanT CfgSvrStnzKeyObjectFromStnzKeyType(CfgStnzKeyO* poStnzKey, const StnzKeyT* ptKey);
BooleanT CfgSvrStanzaObjectFromStanzaType(CfgStnzO* poStanza, StnzT* ptStanza);

// As many values as lValueCount says, which the list must have; room as the counts say, as far as
// it is not out of all proportion to the values. FALSE for a negative count and for items of
// another class.
BooleanT CfgSvrStnzKeyTypeFromStnzKeyObject(StnzKeyT** pptKey, CfgStnzKeyO oKey);
// FALSE when lKeyCount is not the number of keys or one of them does not convert.
BooleanT CfgSvrStanzaTypeFromStanzaObject(StnzT** pptStanza, CfgStnzO oStanza);
