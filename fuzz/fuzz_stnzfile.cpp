// Stanza files from outside: what is loaded is written, read back and equal to what was loaded, and
// written a second time is the same bytes; changes of the file leave the other stanzas readable.
#include <algorithm>
#include <cstring>

#include "core/objwrappers.h"
#include "core/stnzbase.h"
#include "core/stnzfile.h"
#include "fuzzsupport.h"

namespace {

std::string g_home;

std::string Path(const char* name) { return g_home + "/config/" + name; }

// An empty value is the same as none.
std::string Value(StnzKeyT* pKey, int32 lValue) {
    const char* pstrValue = StnzKeyValue(pKey, lValue);
    return pstrValue == nullptr ? "" : pstrValue;
}

void ExpectSame(const StnzT* ptA, const StnzT* ptB) {
    const auto same = [](const char* a, const char* b) {
        return a == nullptr || b == nullptr ? a == b : std::strcmp(a, b) == 0;
    };
    Expect(same(ptA->pstrCatagory, ptB->pstrCatagory) && same(ptA->pstrTitle, ptB->pstrTitle));
    Expect(ptA->lKeyCount == ptB->lKeyCount);
    for (int32 lKey = 0; lKey < ptA->lKeyCount; lKey++) {
        StnzKeyT* pA = ptA->apKeys[lKey];
        StnzKeyT* pB = ptB->apKeys[lKey];
        Expect(same(pA->pstrKeyword, pB->pstrKeyword));
        const int32 lCount = std::max(pA->lValueCount, pB->lValueCount);
        Expect(pA->lValueCount == pB->lValueCount || lCount == 1);
        for (int32 lValue = 1; lValue <= lCount; lValue++)
            Expect(Value(pA, lValue) == Value(pB, lValue));
    }
}

// The second generation is all that the first is, to the byte.
void CheckWriting(ListO oList) {
    const std::string first = Path("first");
    const std::string second = Path("second");
    // Refused is what would not be read back, such as half a character in front of a zero byte.
    if (StnzSaveStanzaListToFile(oList, first.c_str()) != TRUE) return;
    ListO oAgain = nullptr;
    Expect(StnzLoadStanzaListFromFile(&oAgain, first.c_str()) == TRUE);
    Expect(oList->lItemCount == oAgain->lItemCount);
    for (ListNodeO oA = oList->oFirst, oB = oAgain->oFirst; oA != nullptr;
         oA = oA->oNext, oB = oB->oNext) {
        ExpectSame(static_cast<ObjStanzaO>(oA->oData)->pValue,
                   static_cast<ObjStanzaO>(oB->oData)->pValue);
    }
    Expect(StnzSaveStanzaListToFile(oAgain, second.c_str()) == TRUE);
    Expect(ReadFile(first) == ReadFile(second));
    ObjRelease(&oAgain);
}

// Each stanza is found by its name, and so is each of its keys.
void CheckFinding(ListO oList, const std::string& path) {
    StnzFileO oFile = nullptr;
    Expect(StnzOpenFile(&oFile, path.c_str(), StnzFileModeRead) == TRUE);
    for (ListNodeO oNode = oList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        const StnzT* ptStanza = static_cast<ObjStanzaO>(oNode->oData)->pValue;
        Expect(StnzFindStanza(oFile, ptStanza->pstrCatagory, ptStanza->pstrTitle) == TRUE);
        Expect(StnzFindKeywordInStanza(oFile, "no such keyword") == FALSE);
    }
    StnzCloseFile(&oFile);
}

void CheckChanging(const std::string& path) {
    StnzKeyT* pKey = nullptr;
    Expect(StnzLineToKey(&pKey, "key=value") == TRUE);
    Expect(StnzAddKeyToFile(path.c_str(), nullptr, "added by this", &pKey, TRUE) == TRUE);
    Expect(StnzLoadKeyFromFile(&pKey, path.c_str(), "", "Added By This", "KEY") == TRUE);
    Expect(std::strcmp(StnzKeyValue(pKey, 1), "value") == 0);
    StnzReleaseKey(&pKey);
    Expect(StnzRemoveStanzaFromFile(nullptr, "added by this", path.c_str()) == TRUE);
    Expect(StnzLoadKeyFromFile(&pKey, path.c_str(), "", "added by this", "key") == FALSE);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    g_home = FuzzMakeHome("config");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = Path("input");
    WriteFile(path, data, size);
    const NothingLeft nothingLeft;
    ListO oList = nullptr;
    Expect(StnzLoadStanzaListFromFile(&oList, path.c_str()) == TRUE);
    CheckWriting(oList);
    CheckFinding(oList, path);
    ObjRelease(&oList);
    CheckChanging(path);
    return 0;
}
