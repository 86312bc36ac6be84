// Stanza files: the text form of stanzas.
//
// A line is read into a buffer and taken apart there: the parsers give pieces of the line, which
// the reader ends with terminators in place. Only what is kept is copied. The reader counts the
// bytes of each line, so that the place of a stanza is known without asking the stream.
//
// Everything looks at characters: the second byte of a character may look like any delimiter.
#include "core/stnzfile.h"

#include <stdio_ext.h>
#include <unistd.h>

#include <array>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "core/list.h"
#include "core/memory.h"
#include "core/objwrappers.h"
#include "core/stnzbase.h"
#include "core/stnzlist.h"
#include "core/strbase.h"
#include "core/strfile.h"
#include "core/trace.h"

TRACE_MODULE("STANZA")
MEM_DEFAULT_POOL_CACHE

namespace {

using std::string_view;

// --- lines ---

bool IsBlank(int iChar) { return iChar == ' ' || iChar == '\t'; }

bool IsEmpty(const char* pstrText) { return pstrText == nullptr || *pstrText == 0; }

const char* SkipBlanks(const char* pstrText) {
    while (IsBlank(*pstrText)) ++pstrText;
    return pstrText;
}

string_view Piece(const char* pstrStart, const char* pstrEnd) {
    return {pstrStart, static_cast<std::size_t>(pstrEnd - pstrStart)};
}

// The whole characters from pstrStart to pstrEnd without the blanks around them.
string_view Trimmed(const char* pstrStart, const char* pstrEnd) {
    while (pstrStart < pstrEnd && IsBlank(*pstrStart)) ++pstrStart;
    if (pstrStart == pstrEnd || !IsBlank(pstrEnd[-1])) return Piece(pstrStart, pstrEnd);
    const char* pstrLast = pstrStart;
    for (const char* pstrHere = pstrStart; pstrHere < pstrEnd;) {
        if (!IsBlank(StrGetChar(&pstrHere))) pstrLast = pstrHere;
    }
    return Piece(pstrStart, pstrLast);
}

struct TitlePiecesT {
    string_view tCatagory;  // null data when there is none
    string_view tTitle;
};

bool ParseTitle(TitlePiecesT& tPieces, const char* pstrLine) {
    const char* pstrText = SkipBlanks(pstrLine);
    if (*pstrText != '[') return false;
    pstrText = SkipBlanks(pstrText + 1);
    const char* pstrEnd = StrNextCharMatch(pstrText, ']');
    if (pstrEnd == nullptr || *pstrText == ':') return false;
    const char* pstrColon = StrNextCharMatch(pstrText, ':');
    tPieces = {};
    if (pstrColon != nullptr && pstrColon < pstrEnd) {
        tPieces.tCatagory = Trimmed(pstrText, pstrColon);
        pstrText = pstrColon + 1;
    }
    tPieces.tTitle = Trimmed(pstrText, pstrEnd);
    return !tPieces.tTitle.empty();
}

struct KeyPiecesT {
    string_view tKeyword;
    const char* pstrArgument;
};

bool ParseKey(KeyPiecesT& tPieces, const char* pstrLine) {
    const char* pstrText = SkipBlanks(pstrLine);
    if (*pstrText == 0 || *pstrText == '=' || *pstrText == '[') return false;
    const char* pstrEqual = StrNextCharMatch(pstrText, '=');
    if (pstrEqual == nullptr) return false;
    tPieces = {Trimmed(pstrText, pstrEqual), pstrEqual + 1};
    return true;
}

char* DuplicatePiece(string_view tPiece) {
    const auto lSize = static_cast<int32>(tPiece.size());
    auto* pstrNew = static_cast<char*>(MemAllocateFromPool(lSize + 1, MemPool()));
    if (pstrNew != nullptr) MemCopy(pstrNew, tPiece.data(), lSize);
    return pstrNew;
}

// One more than the unescaped commas.
int32 CountValues(const char* pstrArgument) {
    int32 lCount = 1;
    while (const int iChar = StrGetChar(&pstrArgument)) {
        if (iChar == '!') StrGetChar(&pstrArgument);
        if (iChar == ',') ++lCount;
    }
    return lCount;
}

// Takes the next value off an argument, up to its separator, and leaves it in the buffer. Gives the
// buffer, null for an empty value; the cursor is null behind the last value.
char* NextValue(char* pstrBuffer, const char** ppstrArgument) {
    char* pstrOut = pstrBuffer;
    char* pstrKept = nullptr;  // end of what cannot be a trailing blank; null: only blanks so far
    int iChar = 0;
    while ((iChar = StrGetChar(ppstrArgument)) != 0 && iChar != ',') {
        if (IsBlank(iChar)) {
            if (pstrKept != nullptr) StrPutChar(&pstrOut, iChar);
            continue;
        }
        if (iChar == '!') {
            iChar = StrGetChar(ppstrArgument);
            if (iChar == 'n') iChar = '\n';
        }
        if (iChar != 0) StrPutChar(&pstrOut, iChar);
        pstrKept = pstrOut;
    }
    if (iChar == 0) *ppstrArgument = nullptr;
    if (pstrKept == nullptr) return nullptr;
    *pstrKept = 0;
    return pstrBuffer;
}

// --- reading ---

// Where a stream stood, for finds that fail.
class Position {
 public:
    explicit Position(FileStreamO FD) : m_oStream(FD), m_llOffset(ftello(FD->pfInput)) {}
    // Always FALSE.
    BooleanT GoBack() const {
        if (m_llOffset >= 0) fseeko(m_oStream->pfInput, m_llOffset, SEEK_SET);
        return FALSE;
    }

 private:
    FileStreamO m_oStream;
    int64 m_llOffset;
};

// Reads lines from where the stream stands.
class LineReader {
 public:
    explicit LineReader(FileStreamO FD) : m_oStream(FD), m_llOffset(ftello(FD->pfInput)) {}
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    // The next title or key line; false at the end and on error.
    bool Next() {
        int32 lBytes = 0;
        while ((lBytes = StrFileReadLineCounted(m_oStream, m_acLine.data(), StnzFileLineSize,
                                                &m_llOffset)) != -1) {
            if (StrSizeNoTerm(m_acLine.data()) < lBytes) DropHalfCharacter();
            if (TakeTitle() || TakeKey()) return true;
        }
        return false;
    }
    bool IsTitle() const { return m_tInfo.pstrTitle != nullptr; }
    bool IsTitle(const char* pstrCatagory, const char* pstrTitle) const {
        return IsTitle() && StnzSameTitle(m_tInfo.pstrCatagory, m_tInfo.pstrTitle, pstrCatagory,
                                          pstrTitle) == TRUE;
    }
    bool IsKey(const char* pstrKeyword) const {
        return !IsTitle() && StrCompareNoCase(m_tInfo.pstrKeyword, pstrKeyword) == 0;
    }
    const StnzLineInfo& Info() const { return m_tInfo; }

    // Behind the line; what is too far is no place for a stanza.
    bool Fits() const { return m_llOffset <= std::numeric_limits<int32>::max(); }
    int32 Offset() const { return static_cast<int32>(m_llOffset); }
    bool Failed() const { return ferror(m_oStream->pfInput) != 0; }

 private:
    // A zero byte ends the line; the first half of a character in front of it is no text: it would
    // take in what is written behind it.
    void DropHalfCharacter() {
        const char* pstrNext = m_acLine.data();
        const char* pstrLast = pstrNext;
        int iChar = 0;
        while (*pstrNext != 0) {
            pstrLast = pstrNext;
            iChar = StrGetChar(&pstrNext);
        }
        if (iChar <= 0xff && StrIsDBCSLeadByte(iChar) == TRUE)
            m_acLine[static_cast<std::size_t>(pstrLast - m_acLine.data())] = 0;
    }
    char* Terminated(string_view tPiece) {
        if (tPiece.data() == nullptr) return nullptr;
        char* pstrPiece = m_acLine.data() + (tPiece.data() - m_acLine.data());
        pstrPiece[tPiece.size()] = 0;
        return pstrPiece;
    }
    bool TakeTitle() {
        TitlePiecesT tPieces;
        if (!ParseTitle(tPieces, m_acLine.data())) return false;
        m_tInfo = {Terminated(tPieces.tCatagory), Terminated(tPieces.tTitle), nullptr, nullptr};
        return true;
    }
    bool TakeKey() {
        KeyPiecesT tPieces;
        if (!ParseKey(tPieces, m_acLine.data())) return false;
        m_tInfo = {nullptr, nullptr, Terminated(tPieces.tKeyword),
                   m_acLine.data() + (tPieces.pstrArgument - m_acLine.data())};
        return true;
    }

    FileStreamO m_oStream;
    int64 m_llOffset;
    StnzLineInfo m_tInfo = {};
    std::array<char, StnzFileLineSize> m_acLine;
};

// The keys of a stanza, gathered until their number is known.
class KeyCollector {
 public:
    KeyCollector() = default;
    ~KeyCollector() {
        while (m_lCount > 0) StnzReleaseKey(&m_apKeys[--m_lCount]);
        if (m_apKeys != nullptr) MemFree(&m_apKeys);
    }
    KeyCollector(const KeyCollector&) = delete;
    KeyCollector& operator=(const KeyCollector&) = delete;

    bool Add(const StnzLineInfo& tInfo) {
        if (m_lCount == m_lRoom && !Grow()) return false;
        if (StnzAddValues(&m_apKeys[m_lCount], tInfo.pstrKeyword, tInfo.pstrArgument) != TRUE) {
            return false;
        }
        ++m_lCount;
        return true;
    }
    // The keys become the stanza's.
    bool MakeStanza(StnzT** ppStanza, const char* pstrCatagory, const char* pstrTitle) {
        if (StnzCreate(ppStanza, pstrCatagory, pstrTitle, m_lCount) != TRUE) return false;
        for (int32 l = 0; l < m_lCount; ++l) StnzAddKeyToStanza(ppStanza, &m_apKeys[l]);
        m_lCount = 0;
        return true;
    }

 private:
    bool Grow() {
        constexpr int32 lSlot = sizeof(StnzKeyT*);
        if (m_lRoom > std::numeric_limits<int32>::max() / (4 * lSlot)) return false;
        const int32 lRoom = m_lRoom == 0 ? 16 : m_lRoom * 2;
        auto** apKeys = static_cast<StnzKeyT**>(MemAllocateFromPool(lRoom * lSlot, MemPool()));
        if (apKeys == nullptr) return false;
        MemCopy(apKeys, m_apKeys, m_lCount * lSlot);
        if (m_apKeys != nullptr) MemFree(&m_apKeys);
        m_apKeys = apKeys;
        m_lRoom = lRoom;
        return true;
    }

    StnzKeyT** m_apKeys = nullptr;
    int32 m_lCount = 0;
    int32 m_lRoom = 0;
};

// Reads the keys up to the next title line, at which the reader is left, or the end. *pbTitle tells
// which.
bool ReadKeys(KeyCollector& tKeys, LineReader& tReader, bool* pbTitle) {
    *pbTitle = false;
    while (!*pbTitle && tReader.Next()) {
        *pbTitle = tReader.IsTitle();
        if (!*pbTitle && !tKeys.Add(tReader.Info())) return false;
    }
    return !tReader.Failed();
}

// --- the handle ---

bool IsOpen(StnzFileO oStnzFile) {
    return ObjCheckTypeInternal(oStnzFile, StnzFileMagic) == TRUE && oStnzFile->FD != nullptr;
}

bool IsReadable(StnzFileO oStnzFile) {
    return IsOpen(oStnzFile) && oStnzFile->FD->pfInput != nullptr;
}

bool HasStanza(StnzFileO oStnzFile) {
    return IsReadable(oStnzFile) && oStnzFile->pstrTitle != nullptr;
}

bool HasKey(StnzFileO oStnzFile) {
    return IsReadable(oStnzFile) && oStnzFile->pstrKeyword != nullptr;
}

void Exchange(char** ppstrText, char* pstrNew) {
    if (*ppstrText != nullptr) MemFree(ppstrText);
    *ppstrText = pstrNew;
}

// Copies the texts first: they may be the handle's own.
void SetKey(StnzFileO oStnzFile, const char* pstrKeyword, const char* pstrArgument) {
    char* pstrNew = StrDuplicateIntoPool(pstrKeyword, MemPool());
    Exchange(&oStnzFile->pstrArgument, StrDuplicateIntoPool(pstrArgument, MemPool()));
    Exchange(&oStnzFile->pstrKeyword, pstrNew);
}

void SetStanza(StnzFileO oStnzFile, const char* pstrCatagory, const char* pstrTitle,
               int32 lOffset) {
    char* pstrNew = StrDuplicateIntoPool(pstrTitle, MemPool());
    Exchange(&oStnzFile->pstrCatagory, StrDuplicateIntoPoolNullIfEmpty(pstrCatagory, MemPool()));
    Exchange(&oStnzFile->pstrTitle, pstrNew);
    oStnzFile->offsetStanza = lOffset;
    SetKey(oStnzFile, nullptr, nullptr);
}

void ClearCurrent(StnzFileO oStnzFile) { SetStanza(oStnzFile, nullptr, nullptr, 0); }

BooleanT StoreCopy(char** ppstrResult, const char* pstrText) {
    if (ppstrResult == nullptr) return FALSE;
    *ppstrResult = StrDuplicateIntoPool(pstrText, MemPool());
    return TRUE;
}

// Finds a key from where the file stands up to the next title line: of the keyword, or any for
// null.
BooleanT FindKeyHere(StnzFileO oStnzFile, const Position& tBack, const char* pstrKeyword) {
    LineReader tReader(oStnzFile->FD);
    while (tReader.Next() && !tReader.IsTitle()) {
        if (pstrKeyword != nullptr && !tReader.IsKey(pstrKeyword)) continue;
        SetKey(oStnzFile, tReader.Info().pstrKeyword, tReader.Info().pstrArgument);
        return TRUE;
    }
    return tBack.GoBack();
}

enum FindResultE { eFound, eNotThere, eFailed };

FindResultE FindStanza(StnzFileO oStnzFile, const char* pstrCatagory, const char* pstrTitle) {
    FileStreamO FD = oStnzFile->FD;
    if (HasStanza(oStnzFile) && StnzSameTitle(oStnzFile->pstrCatagory, oStnzFile->pstrTitle,
                                              pstrCatagory, pstrTitle) == TRUE) {
        SetKey(oStnzFile, nullptr, nullptr);
        return FileStreamSeekFromLong(FD, oStnzFile->offsetStanza) == TRUE ? eFound : eFailed;
    }
    const Position tBack(FD);
    if (FileStreamSeekStart(FD) != TRUE) return eFailed;
    LineReader tReader(FD);
    while (tReader.Next() && tReader.Fits()) {
        if (!tReader.IsTitle(pstrCatagory, pstrTitle)) continue;
        SetStanza(oStnzFile, pstrCatagory, pstrTitle, tReader.Offset());
        return eFound;
    }
    tBack.GoBack();
    return tReader.Failed() || !tReader.Fits() ? eFailed : eNotThere;
}

// --- writing ---

bool Write(FileStreamO FD, string_view tText) {
    return FileStreamWrite(FD, reinterpret_cast<const ByteT*>(tText.data()),
                           static_cast<int32>(tText.size())) == TRUE;
}

// Appends a text so that it is read as one value. Null is nothing.
void AppendEscaped(std::string& tLine, const char* pstrText) {
    if (pstrText == nullptr) return;
    const string_view tInner = Trimmed(pstrText, StrTerminatorPosition(pstrText));
    const char* pstrInnerEnd = tInner.data() + tInner.size();
    const char* pstrNext = pstrText;
    for (const char* pstrHere = pstrText; const int iChar = StrGetChar(&pstrNext);
         pstrHere = pstrNext) {
        const bool bOuter = pstrHere < tInner.data() || pstrHere >= pstrInnerEnd;
        const bool bEscape =
            iChar == '!' || iChar == ',' || iChar == '\n' || (bOuter && IsBlank(iChar));
        if (bEscape) tLine += '!';
        if (iChar == '\n')
            tLine += 'n';
        else
            tLine.append(pstrHere, pstrNext);
    }
}

std::string TitleLine(const char* pstrCatagory, const char* pstrTitle) {
    std::string tLine = "[";
    if (!IsEmpty(pstrCatagory)) {
        tLine += pstrCatagory;
        tLine += ':';
    }
    tLine += pstrTitle;
    return tLine += ']';
}

std::string KeyLine(const StnzKeyT* ptKey) {
    std::string tLine = ptKey->pstrKeyword;
    tLine += '=';
    for (int32 l = 0; l < ptKey->lValueCount; ++l) {
        if (l > 0) tLine += ',';
        AppendEscaped(tLine, ptKey->apstrValues[l]);
    }
    return tLine;
}

// A line that is read as it was written: neither cut nor broken, without characters that reading
// passes over, and its last character whole, as otherwise it would take in the line feed.
bool StaysOneLine(const std::string& tLine) {
    if (tLine.size() >= StnzFileLineSize) return false;
    int iChar = 0;
    for (const char* pstrNext = tLine.c_str(); *pstrNext != 0;) {
        iChar = StrGetChar(&pstrNext);
        if (iChar == '\n' || iChar == '\r') return false;
    }
    return iChar > 0xff || StrIsDBCSLeadByte(iChar) == FALSE;
}

bool ReadsAsTitle(const std::string& tLine, const StnzT* ptStanza) {
    TitlePiecesT tPieces;
    const char* pstrCatagory = IsEmpty(ptStanza->pstrCatagory) ? "" : ptStanza->pstrCatagory;
    return StaysOneLine(tLine) && ParseTitle(tPieces, tLine.c_str()) &&
           tPieces.tCatagory == pstrCatagory && tPieces.tTitle == ptStanza->pstrTitle;
}

// An empty value is read as none, and so is a null value that is the only one.
bool ReadsAsKey(const std::string& tLine, const StnzKeyT* ptKey) {
    KeyPiecesT tPieces;
    if (!StaysOneLine(tLine) || !ParseKey(tPieces, tLine.c_str()) ||
        tPieces.tKeyword != ptKey->pstrKeyword) {
        return false;
    }
    std::array<char, StnzFileLineSize> acValue;
    const char* pstrArgument = tPieces.pstrArgument;
    for (int32 l = 0; l < ptKey->lValueCount; ++l) {
        if (pstrArgument == nullptr) return false;
        const char* pstrRead = NextValue(acValue.data(), &pstrArgument);
        const char* pstrValue = ptKey->apstrValues[l];
        if (IsEmpty(pstrValue) ? pstrRead != nullptr : StrCompare(pstrRead, pstrValue) != 0)
            return false;
    }
    return ptKey->lValueCount == 0 || pstrArgument == nullptr;
}

bool WriteLine(FileStreamO FD, std::string tLine) { return Write(FD, tLine += '\n'); }

// Names are read as they stand, so they are written as they are. A stanza that would not be read
// back as it is, such as one with a line feed in a name, is refused.
bool WriteStanza(FileStreamO FD, const StnzT* ptStanza) {
    if (ptStanza == nullptr || IsEmpty(ptStanza->pstrTitle)) return false;
    std::string tLine = TitleLine(ptStanza->pstrCatagory, ptStanza->pstrTitle);
    if (!ReadsAsTitle(tLine, ptStanza) || !WriteLine(FD, std::move(tLine))) return false;
    for (int32 l = 0; l < ptStanza->lKeyCount; ++l) {
        tLine = KeyLine(ptStanza->apKeys[l]);
        if (!ReadsAsKey(tLine, ptStanza->apKeys[l]) || !WriteLine(FD, std::move(tLine)))
            return false;
    }
    return Write(FD, "\n");
}

bool PassThrough(FileStreamO FD, const StnzLineInfo& tInfo) {
    if (tInfo.pstrTitle != nullptr)
        return WriteLine(FD, TitleLine(tInfo.pstrCatagory, tInfo.pstrTitle));
    return WriteLine(FD, std::string(tInfo.pstrKeyword) + '=' + tInfo.pstrArgument);
}

// Rewrites the file with what fnWrite(reader) writes while it reads the old content. A failure,
// also of reading, leaves file, position and current names as they were.
template <class WriteT>
bool Rewrite(StnzFileO oStnzFile, const Position& tBack, WriteT fnWrite) {
    FileStreamO FD = oStnzFile->FD;
    bool bGood = FileStreamSeekStart(FD) == TRUE && FileStreamStartRewrite(FD) == TRUE;
    if (bGood) {
        LineReader tReader(FD);
        bGood = fnWrite(tReader) && !tReader.Failed();
        if (bGood) {
            bGood = FileStreamCloseOutput(FD) == TRUE;
        } else {
            FileStreamCancelRewrite(FD);
        }
    }
    if (bGood) {
        ClearCurrent(oStnzFile);
    } else {
        tBack.GoBack();
    }
    return bGood;
}

bool MayRewrite(StnzFileO oStnzFile) {
    return IsReadable(oStnzFile) && oStnzFile->iOpenMode == StnzFileModeUpdate;
}

// --- whole files ---

// Owner of an open handle; one that is not closed by Close drops what it has not finished.
class OpenFile {
 public:
    OpenFile(const char* pstrPath, int32 iMode) {
        if (StnzOpenFile(m_oFile.Address(), pstrPath, iMode) != TRUE &&
            iMode == StnzFileModeUpdate) {
            TraceMessageInline(75, 0, 4, "Failed to open '%s' for update",
                               pstrPath == nullptr ? "" : pstrPath);
        }
    }
    StnzFileO Get() const { return m_oFile.Get(); }
    bool IsOpen() const { return m_oFile.Get() != nullptr; }
    // Closes also when the work failed. TRUE when the work was done and, where something was
    // written, closing succeeded too.
    BooleanT Close(BooleanT bWork) {
        const bool bReadOnly = m_oFile.Get()->iOpenMode == StnzFileModeRead;
        const BooleanT bClosed = StnzCloseFile(m_oFile.Address());
        return BooleanFrom(bWork == TRUE && (bReadOnly || bClosed == TRUE));
    }

 private:
    ObjHolder<StnzFileS> m_oFile;
};

BooleanT AppendWhole(StnzFileO oFile, const StnzT* ptStanza) {
    FILE* pfOutput = oFile->FD->pfOutput;
    int64 llSize = 0;
    if (FileSysSize(&llSize, fileno(pfOutput)) != TRUE) return FALSE;
    if (StnzFileAppendStanza(oFile, ptStanza) == TRUE && fflush(pfOutput) == 0) return TRUE;
    // A part of a stanza would take in what is appended next.
    __fpurge(pfOutput);
    SysRepeat([&] { return ftruncate(fileno(pfOutput), llSize); });
    return FALSE;
}

}  // namespace

BooleanT StnzFileInitialize() {
    ObjTemplateT tTemplate = nullptr;
    return ObjTemplateCreateInternal(&tTemplate, sizeof(StnzFileS), StnzFileMagic, "o;i;s;s;s;s;i;",
                                     nullptr);
}

BooleanT StnzFileInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void StnzFileReleaseThread(TesselContextT* /*ptTlContext*/) {}

BooleanT StnzLineIsTitle(const char* pstrLine) {
    if (pstrLine == nullptr) return FALSE;
    pstrLine = SkipBlanks(pstrLine);
    return BooleanFrom(*pstrLine == '[' && StrNextCharMatch(pstrLine, ']') != nullptr);
}

BooleanT StnzLineIsKey(const char* pstrLine) {
    KeyPiecesT tPieces;
    return BooleanFrom(pstrLine != nullptr && ParseKey(tPieces, pstrLine));
}

BooleanT StnzLineToTitle(char** ppstrCatagory, char** ppstrTitle, const char* pstrLine) {
    TitlePiecesT tPieces;
    if (ppstrCatagory == nullptr || ppstrTitle == nullptr || pstrLine == nullptr ||
        !ParseTitle(tPieces, pstrLine)) {
        return FALSE;
    }
    *ppstrCatagory =
        tPieces.tCatagory.data() == nullptr ? nullptr : DuplicatePiece(tPieces.tCatagory);
    *ppstrTitle = DuplicatePiece(tPieces.tTitle);
    return TRUE;
}

BooleanT StnzLineToKeywordAndArgument(char** ppstrKeyword, char** ppstrArgument,
                                      const char* pstrLine) {
    KeyPiecesT tPieces;
    if (ppstrKeyword == nullptr || ppstrArgument == nullptr || pstrLine == nullptr ||
        !ParseKey(tPieces, pstrLine)) {
        return FALSE;
    }
    *ppstrKeyword = DuplicatePiece(tPieces.tKeyword);
    *ppstrArgument = StrDuplicateIntoPool(tPieces.pstrArgument, MemPool());
    return TRUE;
}

BooleanT StnzAddValues(StnzKeyT** ppKey, const char* pstrKeyword, const char* pstrArgument) {
    if (ppKey == nullptr || pstrArgument == nullptr) return FALSE;
    StnzKeyT* ptKey = nullptr;
    if (StnzCreateKey(&ptKey, pstrKeyword, CountValues(pstrArgument)) != TRUE) return FALSE;
    // No value is longer than the argument. What a line can hold needs no block.
    std::array<char, StnzFileLineSize> acLine;
    PoolPtr<char> pstrLong;
    char* pstrBuffer = acLine.data();
    if (const int32 lSize = StrSize(pstrArgument); lSize > StnzFileLineSize) {
        pstrLong = PoolPtr<char>(static_cast<char*>(MemAllocateFromPool(lSize, MemPool())));
        pstrBuffer = pstrLong.Get();
    }
    BooleanT bResult = BooleanFrom(pstrBuffer != nullptr);
    if (*SkipBlanks(pstrArgument) == 0) pstrArgument = nullptr;
    while (bResult == TRUE && pstrArgument != nullptr) {
        bResult = StnzAddValueToKey(&ptKey, NextValue(pstrBuffer, &pstrArgument));
    }
    if (bResult == TRUE) {
        *ppKey = ptKey;
    } else {
        StnzReleaseKey(&ptKey);
    }
    return bResult;
}

BooleanT StnzLineToKey(StnzKeyT** ppKey, const char* pstrLine) {
    PoolPtr<char> pstrKeyword;
    PoolPtr<char> pstrArgument;
    if (StnzLineToKeywordAndArgument(pstrKeyword.Address(), pstrArgument.Address(), pstrLine) !=
        TRUE) {
        TraceMessageInline(17, 0, -1, "Failed to split key line %s",
                           pstrLine == nullptr ? "" : pstrLine);
        return FALSE;
    }
    return StnzAddValues(ppKey, pstrKeyword.Get(), pstrArgument.Get());
}

BooleanT StnzOpenFile(StnzFileO* poStnzFile, const char* pstrPath, const int32 iOpenMode) {
    if (poStnzFile == nullptr || IsEmpty(pstrPath)) return FALSE;
    ObjHolder<StnzFileS> oFile(ObjNew<StnzFileS>(StnzFileMagic, "o;i;s;s;s;s;i;"));
    if (oFile.Get() == nullptr) return FALSE;
    oFile.Get()->iOpenMode = iOpenMode;
    if (FileStreamOpenTags(&oFile.Get()->FD, OBJ_TAG_BEGIN, FileStreamTagPathName, pstrPath,
                           FileStreamTagOpenMode, iOpenMode, FileStreamTagLocking, TRUE,
                           OBJ_TAG_END) != TRUE) {
        return FALSE;
    }
    *poStnzFile = oFile.Take();
    return TRUE;
}

BooleanT StnzCloseFile(StnzFileO* poStnzFile) {
    if (poStnzFile == nullptr || !IsOpen(*poStnzFile)) return FALSE;
    const BooleanT bResult = FileStreamClose(&(*poStnzFile)->FD);
    ClearCurrent(*poStnzFile);
    ObjRelease(poStnzFile);
    return bResult;
}

int32 StnzFileOpenMode(StnzFileO oStnzFile) {
    return IsOpen(oStnzFile) ? oStnzFile->iOpenMode : -1;
}

BooleanT StnzRewindFile(StnzFileO oStnzFile) {
    if (!IsReadable(oStnzFile) || FileStreamSeekStart(oStnzFile->FD) != TRUE) return FALSE;
    ClearCurrent(oStnzFile);
    return TRUE;
}

BooleanT StnzFindStanza(StnzFileO oStnzFile, const char* pstrCatagory, const char* pstrTitle) {
    if (!IsReadable(oStnzFile) || IsEmpty(pstrTitle)) return FALSE;
    return BooleanFrom(FindStanza(oStnzFile, pstrCatagory, pstrTitle) == eFound);
}

BooleanT StnzFindNextStanza(StnzFileO oStnzFile) {
    if (oStnzFile == nullptr) {
        TraceMessageInline(33, 0, -1, "Invalid file pointer");
        return FALSE;
    }
    if (!IsReadable(oStnzFile)) return FALSE;
    const Position tBack(oStnzFile->FD);
    LineReader tReader(oStnzFile->FD);
    while (tReader.Next() && tReader.Fits()) {
        if (!tReader.IsTitle()) continue;
        SetStanza(oStnzFile, tReader.Info().pstrCatagory, tReader.Info().pstrTitle,
                  tReader.Offset());
        return TRUE;
    }
    return tBack.GoBack();
}

BooleanT StnzFindKeywordInStanza(StnzFileO oStnzFile, const char* pstrKeyword) {
    if (!HasStanza(oStnzFile) || IsEmpty(pstrKeyword)) return FALSE;
    const Position tBack(oStnzFile->FD);
    if (FileStreamSeekFromLong(oStnzFile->FD, oStnzFile->offsetStanza) != TRUE) return FALSE;
    return FindKeyHere(oStnzFile, tBack, pstrKeyword);
}

BooleanT StnzFindNextKeyword(StnzFileO oStnzFile) {
    if (!HasStanza(oStnzFile)) return FALSE;
    return FindKeyHere(oStnzFile, Position(oStnzFile->FD), nullptr);
}

BooleanT StnzFindKeyword(StnzFileO oStnzFile, const char* pstrKeyword) {
    if (!IsReadable(oStnzFile) || IsEmpty(pstrKeyword)) return FALSE;
    const Position tBack(oStnzFile->FD);
    LineReader tReader(oStnzFile->FD);
    PoolPtr<char> pstrCatagory;
    PoolPtr<char> pstrTitle;  // of the last title line passed
    int32 lOffset = 0;
    while (tReader.Next() && tReader.Fits()) {
        if (tReader.IsTitle()) {
            pstrCatagory =
                PoolPtr<char>(StrDuplicateIntoPool(tReader.Info().pstrCatagory, MemPool()));
            pstrTitle = PoolPtr<char>(StrDuplicateIntoPool(tReader.Info().pstrTitle, MemPool()));
            lOffset = tReader.Offset();
        } else if (tReader.IsKey(pstrKeyword)) {
            if (pstrTitle.Get() != nullptr) {
                SetStanza(oStnzFile, pstrCatagory.Get(), pstrTitle.Get(), lOffset);
            }
            SetKey(oStnzFile, tReader.Info().pstrKeyword, tReader.Info().pstrArgument);
            return TRUE;
        }
    }
    return tBack.GoBack();
}

BooleanT StnzCurrentTitle(char** ppstrCatagory, char** ppstrTitle, StnzFileO oStnzFile) {
    if (ppstrTitle == nullptr || !HasStanza(oStnzFile)) return FALSE;
    if (ppstrCatagory != nullptr) StoreCopy(ppstrCatagory, oStnzFile->pstrCatagory);
    return StoreCopy(ppstrTitle, oStnzFile->pstrTitle);
}

BooleanT StnzCurrentKeyword(char** ppstrKeyword, StnzFileO oStnzFile) {
    return HasKey(oStnzFile) ? StoreCopy(ppstrKeyword, oStnzFile->pstrKeyword) : FALSE;
}

BooleanT StnzCurrentArgument(char** ppstrArgument, StnzFileO oStnzFile) {
    return HasKey(oStnzFile) ? StoreCopy(ppstrArgument, oStnzFile->pstrArgument) : FALSE;
}

BooleanT StnzLoadCurrentKey(StnzKeyT** ppKey, StnzFileO oStnzFile) {
    if (!HasKey(oStnzFile)) return FALSE;
    return StnzAddValues(ppKey, oStnzFile->pstrKeyword, oStnzFile->pstrArgument);
}

BooleanT StnzLoadCurrentStanza(StnzT** ppStanza, StnzFileO oStnzFile) {
    if (ppStanza == nullptr || !HasStanza(oStnzFile)) return FALSE;
    const Position tBack(oStnzFile->FD);
    if (FileStreamSeekFromLong(oStnzFile->FD, oStnzFile->offsetStanza) != TRUE) return FALSE;
    LineReader tReader(oStnzFile->FD);
    KeyCollector tKeys;
    bool bTitle = false;
    const bool bGood = ReadKeys(tKeys, tReader, &bTitle) &&
                       tKeys.MakeStanza(ppStanza, oStnzFile->pstrCatagory, oStnzFile->pstrTitle);
    tBack.GoBack();
    return BooleanFrom(bGood);
}

BooleanT StnzFileLoadStanzaList(ListO* poList, StnzFileO oStnzFile) {
    if (poList == nullptr || !IsReadable(oStnzFile)) return FALSE;
    ObjHolder<ListS> oList(ListNew(ObjStanzaMagic));
    const Position tBack(oStnzFile->FD);
    LineReader tReader(oStnzFile->FD);
    KeyCollector tKeys;
    PoolPtr<char> pstrCatagory;
    PoolPtr<char> pstrTitle;
    int32 lOffset = 0;
    bool bTitle = false;
    while (!bTitle && tReader.Next()) bTitle = tReader.IsTitle();
    while (bTitle) {
        if (!tReader.Fits()) return tBack.GoBack();
        lOffset = tReader.Offset();
        pstrCatagory = PoolPtr<char>(StrDuplicateIntoPool(tReader.Info().pstrCatagory, MemPool()));
        pstrTitle = PoolPtr<char>(StrDuplicateIntoPool(tReader.Info().pstrTitle, MemPool()));
        ObjHolder<ObjStanzaS> oStanza(ObjStanzaNew(nullptr));
        if (!ReadKeys(tKeys, tReader, &bTitle) ||
            !tKeys.MakeStanza(&oStanza.Get()->pValue, pstrCatagory.Get(), pstrTitle.Get()) ||
            ListPushLastItem(oList.Get(), oStanza.Address()) != TRUE) {
            return tBack.GoBack();
        }
    }
    if (tReader.Failed()) return tBack.GoBack();
    // As after finding the last stanza.
    if (pstrTitle.Get() != nullptr) {
        SetStanza(oStnzFile, pstrCatagory.Get(), pstrTitle.Get(), lOffset);
        FileStreamSeekFromLong(oStnzFile->FD, lOffset);
    } else {
        tBack.GoBack();
    }
    *poList = oList.Take();
    return TRUE;
}

BooleanT StnzFileWriteStanza(StnzFileO oStnzFile, const StnzT* pStanza) {
    if (!IsOpen(oStnzFile) || (oStnzFile->iOpenMode != StnzFileModeAppend &&
                               oStnzFile->iOpenMode != StnzFileModeUpdate)) {
        return FALSE;
    }
    return BooleanFrom(WriteStanza(oStnzFile->FD, pStanza));
}

BooleanT StnzFileAppendStanza(StnzFileO oStnzFile, const StnzT* pStanza) {
    if (StnzFileOpenMode(oStnzFile) != StnzFileModeAppend) return FALSE;
    return StnzFileWriteStanza(oStnzFile, pStanza);
}

BooleanT StnzFileRemoveStanza(StnzFileO oStnzFile, const char* pstrCatagory,
                              const char* pstrTitle) {
    if (!MayRewrite(oStnzFile) || IsEmpty(pstrTitle)) return FALSE;
    bool bInStanza = false;
    return BooleanFrom(Rewrite(oStnzFile, Position(oStnzFile->FD), [&](LineReader& tReader) {
        while (tReader.Next()) {
            if (tReader.IsTitle()) bInStanza = tReader.IsTitle(pstrCatagory, pstrTitle);
            if (!bInStanza && !PassThrough(oStnzFile->FD, tReader.Info())) return false;
        }
        return true;
    }));
}

BooleanT StnzFileReplaceStanza(StnzFileO oStnzFile, const StnzT* pStanza) {
    TraceMessageInline(42, 0, 4, "StnzFileReplaceStanza(%p, %p)", static_cast<void*>(oStnzFile),
                       static_cast<const void*>(pStanza));
    if (!MayRewrite(oStnzFile) || pStanza == nullptr || IsEmpty(pStanza->pstrTitle)) return FALSE;
    FileStreamO FD = oStnzFile->FD;
    // Set while an empty line is there already, or nothing to be parted from.
    bool bNoNewline = true;
    bool bInStanza = false;
    bool bDone = false;
    const Position tBack(FD);
    const bool bGood = Rewrite(oStnzFile, tBack, [&](LineReader& tReader) {
        bool bWritten = true;
        while (bWritten && tReader.Next()) {
            if (tReader.IsTitle()) {
                bInStanza = tReader.IsTitle(pStanza->pstrCatagory, pStanza->pstrTitle);
                bWritten = bNoNewline || Write(FD, "\n");
                bNoNewline = false;
            }
            if (!bInStanza) {
                bWritten = bWritten && PassThrough(FD, tReader.Info());
            } else if (!bDone) {
                bWritten = bWritten && WriteStanza(FD, pStanza);
                bDone = bNoNewline = true;
            }
        }
        if (!bDone)
            bWritten = bWritten && (bNoNewline || Write(FD, "\n")) && WriteStanza(FD, pStanza);
        return bWritten;
    });
    if (bGood) tBack.GoBack();
    return BooleanFrom(bGood);
}

BooleanT StnzFileSaveStanzaList(ListO oList, StnzFileO ptStnzFile) {
    if (ListIsList(oList) != TRUE || !MayRewrite(ptStnzFile)) return FALSE;
    return BooleanFrom(Rewrite(ptStnzFile, Position(ptStnzFile->FD), [&](LineReader&) {
        for (ListNodeO oNode = oList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
            if (ObjCheckTypeInternal(oNode->oData, ObjStanzaMagic) != TRUE) continue;
            if (!WriteStanza(ptStnzFile->FD, static_cast<ObjStanzaO>(oNode->oData)->pValue)) {
                return false;
            }
        }
        return true;
    }));
}

BooleanT StnzLoadStanzaFromFile(StnzT** ppStanza, const char* pstrPath, const char* pstrCatagory,
                                const char* pstrTitle) {
    OpenFile tFile(pstrPath, StnzFileModeRead);
    if (!tFile.IsOpen()) return FALSE;
    return tFile.Close(BooleanFrom(StnzFindStanza(tFile.Get(), pstrCatagory, pstrTitle) == TRUE &&
                                   StnzLoadCurrentStanza(ppStanza, tFile.Get()) == TRUE));
}

BooleanT StnzLoadKeyFromFile(StnzKeyT** ppKey, const char* pstrPath, const char* pstrCatagory,
                             const char* pstrTitle, const char* pstrKeyword) {
    if (IsEmpty(pstrTitle) || IsEmpty(pstrKeyword)) return FALSE;
    OpenFile tFile(pstrPath, StnzFileModeRead);
    if (!tFile.IsOpen()) return FALSE;
    return tFile.Close(
        BooleanFrom(StnzFindStanza(tFile.Get(), pstrCatagory, pstrTitle) == TRUE &&
                    StnzFindKeywordInStanza(tFile.Get(), pstrKeyword) == TRUE &&
                    StnzAddValues(ppKey, pstrKeyword, tFile.Get()->pstrArgument) == TRUE));
}

BooleanT StnzLoadStanzaListFromFile(ListO* poList, const char* pstrPath) {
    OpenFile tFile(pstrPath, StnzFileModeRead);
    if (!tFile.IsOpen()) return FALSE;
    return tFile.Close(StnzFileLoadStanzaList(poList, tFile.Get()));
}

BooleanT StnzLoadDynamicStanzaListFromFile(StnzDynamicListO* poList, const char* pstrPath) {
    if (poList == nullptr) return FALSE;
    ObjHolder<StnzDynamicListS> oDynamic(ObjNew<StnzDynamicListS>(StnzDynamicListMagic, "o;s;"));
    if (oDynamic.Get() == nullptr ||
        StnzLoadStanzaListFromFile(&oDynamic.Get()->oStnzList, pstrPath) != TRUE) {
        return FALSE;
    }
    oDynamic.Get()->pstrPath = StrDuplicateIntoPool(pstrPath, MemPool());
    *poList = oDynamic.Take();
    return TRUE;
}

BooleanT StnzSaveStanzaListToFile(ListO oList, const char* pstrPath) {
    if (ListIsList(oList) != TRUE) return FALSE;
    OpenFile tFile(pstrPath, StnzFileModeUpdate);
    if (!tFile.IsOpen()) return FALSE;
    return tFile.Close(StnzFileSaveStanzaList(oList, tFile.Get()));
}

BooleanT StnzSaveDynamicStanzaListToFile(StnzDynamicListO oDynamicList) {
    if (ObjCheckTypeInternal(oDynamicList, StnzDynamicListMagic) != TRUE) return FALSE;
    return StnzSaveStanzaListToFile(oDynamicList->oStnzList, oDynamicList->pstrPath);
}

BooleanT StnzAddStanzaToFile(StnzT* ptStanza, const char* pstrPathName) {
    if (IsEmpty(pstrPathName)) {
        TraceMessageInline(71, 0, -1, "Attemped to add stanza to NULL file");
        return FALSE;
    }
    if (ptStanza == nullptr) {
        TraceMessageInline(70, 0, -1, "Attemped to add NULL stanza to file '%s'", pstrPathName);
        return FALSE;
    }
    OpenFile tFile(pstrPathName, StnzFileModeAppend);
    if (!tFile.IsOpen()) return FALSE;
    return tFile.Close(AppendWhole(tFile.Get(), ptStanza));
}

BooleanT StnzReplaceStanzaInFile(StnzT* ptStanza, const char* pstrPathName) {
    if (IsEmpty(pstrPathName)) {
        TraceMessageInline(73, 0, -1, "Attemped to replace stanza to NULL file");
        return FALSE;
    }
    if (ptStanza == nullptr) {
        TraceMessageInline(72, 0, -1, "Attemped to replace NULL stanza to file '%s'", pstrPathName);
        return FALSE;
    }
    OpenFile tFile(pstrPathName, StnzFileModeUpdate);
    if (!tFile.IsOpen()) return FALSE;
    const BooleanT bReplaced = StnzFileReplaceStanza(tFile.Get(), ptStanza);
    if (bReplaced != TRUE) TraceMessageInline(74, 0, -1, "Failed to replace stanza in file");
    return tFile.Close(bReplaced);
}

BooleanT StnzRemoveStanzaFromFile(const char* pstrCatagory, const char* pstrTitle,
                                  const char* pstrPathName) {
    if (IsEmpty(pstrTitle)) return FALSE;
    OpenFile tFile(pstrPathName, StnzFileModeUpdate);
    if (!tFile.IsOpen()) return FALSE;
    return tFile.Close(StnzFileRemoveStanza(tFile.Get(), pstrCatagory, pstrTitle));
}

BooleanT StnzAddKeyToFile(const char* pstrPathName, const char* pstrCatagory, const char* pstrTitle,
                          StnzKeyT** pptKey, BooleanT bReplace) {
    if (IsEmpty(pstrTitle) || pptKey == nullptr || *pptKey == nullptr) return FALSE;
    OpenFile tFile(pstrPathName, StnzFileModeUpdate);
    if (!tFile.IsOpen()) return FALSE;
    StnzT* ptStanza = nullptr;
    // A stanza that may be there but cannot be read is not to be replaced by a new one.
    BooleanT bResult = FALSE;
    switch (FindStanza(tFile.Get(), pstrCatagory, pstrTitle)) {
        case eFound:
            bResult = StnzLoadCurrentStanza(&ptStanza, tFile.Get());
            break;
        case eNotThere:
            bResult = StnzCreate(&ptStanza, pstrCatagory, pstrTitle, 1);
            break;
        case eFailed:
            break;
    }
    if (bResult == TRUE) {
        bResult = bReplace == TRUE ? StnzReplaceKeyInStanza(&ptStanza, pptKey)
                                   : StnzAddKeyToStanza(&ptStanza, pptKey);
    }
    if (bResult == TRUE) bResult = StnzFileReplaceStanza(tFile.Get(), ptStanza);
    StnzRelease(&ptStanza);
    return tFile.Close(bResult);
}
