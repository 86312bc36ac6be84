// Temporary files. The directory's path is made in one place, FileGetTmpDir; paths of files are
// built on a copy of it that is kept from the first use on, so that a process stays with one
// directory.
#include "core/filetmp.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string_view>

#include "core/cfg.h"
#include "core/dirscan.h"
#include "core/filebase.h"
#include "core/filesys.h"
#include "core/memory.h"
#include "core/path.h"
#include "core/process.h"
#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("FILETMP")

namespace {

char* gpstrTmpDir = nullptr;  // kept by FileTmpBuildPath
uint32 gulTmpInstance = 0;    // of the unique name tried last

bool FileTmpIsSafeName(std::string_view tName) {
    if (tName.empty() || tName == "." || tName == "..") return false;
    return std::all_of(tName.begin(), tName.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '.';
    });
}

BooleanT FileTmpOpen(FileTmpDescriptorT* pHandle, const char* pstrFileName, FileModeT tMode) {
    if (pHandle == nullptr || pstrFileName == nullptr || !FileTmpIsSafeName(pstrFileName))
        return FALSE;
    PoolPtr<char> pstrPath(FileTmpBuildPath(pstrFileName));
    FILE* pfileNew = nullptr;
    if (FileSysFOpen(&pfileNew, pstrPath.Get(), tMode) != TRUE) return FALSE;
    auto* ptNew = MemNew<FileTmpDescriptorS>();
    ptNew->pfileHandle = pfileNew;
    ptNew->pstrFileName = StrDuplicate(pstrFileName);
    *pHandle = ptNew;
    return TRUE;
}

// What a deleting scan looks for, and what came of it. Failures do not stop the scan.
struct FileTmpDeletionT {
    bool bOwnedOnly;
    ProcIdT tOwner;
    BooleanT bResult;
};

// Takes a decimal number of at most lWidth characters off the front of the text.
bool FileTmpTakeNumber(std::string_view* ptText, std::size_t lWidth, int64* pllNumber) {
    const std::string_view tField = ptText->substr(0, lWidth);
    const auto tEnd = std::from_chars(tField.data(), tField.data() + tField.size(), *pllNumber);
    if (tEnd.ec != std::errc()) return false;
    ptText->remove_prefix(static_cast<std::size_t>(tEnd.ptr - tField.data()));
    return true;
}

// A unique name is read back with the widths that it was written with; one more character and it is
// no such name.
bool FileTmpIsOwnedBy(std::string_view tName, ProcIdT tOwner) {
    int64 llOwner = 0;
    int64 llCreator = 0;
    int64 llInstance = 0;
    return FileTmpTakeNumber(&tName, 5, &llOwner) && FileTmpTakeNumber(&tName, 5, &llCreator) &&
           FileTmpTakeNumber(&tName, 10, &llInstance) && tName.empty() && llOwner == tOwner;
}

BooleanT FileTmpDeleteEntry(const char* pstrDirectory, const char* pstrName, void* pCookie) {
    auto* ptDeletion = static_cast<FileTmpDeletionT*>(pCookie);
    if (ptDeletion->bOwnedOnly) {
        if (!FileTmpIsOwnedBy(pstrName, ptDeletion->tOwner)) return TRUE;
        TraceMessageInline(2, 0, 4, "Delete file \"%s\"", pstrName);
    } else {
        TraceMessageInline(1, 0, 4, "Delete file \"%s\"", pstrName);
    }
    PoolPtr<char> pstrPath(PathBuild(pstrDirectory, pstrName, nullptr));
    if (FileDelete(pstrPath.Get()) != TRUE) ptDeletion->bResult = FALSE;
    return TRUE;
}

BooleanT FileTmpDeleteMatching(FileTmpDeletionT tDeletion) {
    PoolPtr<char> pstrDirectory(FileTmpBuildPath(""));
    if (DirScan(pstrDirectory.Get(), FileTmpDeleteEntry, &tDeletion) != TRUE) return FALSE;
    return tDeletion.bResult;
}

}  // namespace

char* FileGetTmpDir() {
    PoolPtr<char> pstrConfigured;
    CfgGetString(pstrConfigured.Address(), "configure.cfg", "directories", "tmp", nullptr);
    const bool bConfigured = pstrConfigured.Get() != nullptr && *pstrConfigured.Get() != '\0';
    return bConfigured ? pstrConfigured.Take() : PathHomeBuild("tmp", nullptr);
}

char* FileTmpBuildPath(const char* pstrFileName) {
    if (pstrFileName == nullptr) return nullptr;
    if (gpstrTmpDir == nullptr) gpstrTmpDir = FileGetTmpDir();
    if (gpstrTmpDir == nullptr) return nullptr;
    return PathBuild(gpstrTmpDir, pstrFileName, nullptr);
}

BooleanT FileTmpCreateUniqueName(char** ppstrFileName, ProcIdT tOwner) {
    if (ppstrFileName == nullptr) return FALSE;
    while (true) {
        char acName[40];
        std::snprintf(acName, sizeof(acName), "%05d%05d%010u", tOwner, ProcGetId(),
                      ++gulTmpInstance);
        PoolPtr<char> pstrPath(FileTmpBuildPath(acName));
        if (pstrPath.Get() == nullptr) return FALSE;
        // Links are not followed: a name that leads nowhere is in use as well.
        if (FileStat(nullptr, pstrPath.Get(), FALSE) == TRUE) continue;
        *ppstrFileName = StrDuplicate(acName);
        return TRUE;
    }
}

BooleanT FileTmpCreateUniquePath(char** ppstrPath, ProcIdT tOwner) {
    PoolPtr<char> pstrName;
    if (ppstrPath == nullptr || FileTmpCreateUniqueName(pstrName.Address(), tOwner) != TRUE)
        return FALSE;
    *ppstrPath = FileTmpBuildPath(pstrName.Get());
    return TRUE;
}

BooleanT FileTmpCreateUniqueFile(FileHandleT* ptHandle, char** ppstrPath, ProcIdT tOwner) {
    if (ptHandle == nullptr || ppstrPath == nullptr) return FALSE;
    while (true) {
        PoolPtr<char> pstrPath;
        if (FileTmpCreateUniquePath(pstrPath.Address(), tOwner) != TRUE) return FALSE;
        errno = 0;
        const BooleanT bOpen =
            FileSysOpen(ptHandle, pstrPath.Get(), FileModeWriteBinary | FileModeNew);
        if (bOpen != TRUE && errno == EEXIST) continue;
        *ppstrPath = pstrPath.Take();
        return bOpen;
    }
}

BooleanT FileTmpOpenOutput(FileTmpDescriptorT* pHandle, const char* pstrFileName) {
    return FileTmpOpen(pHandle, pstrFileName, FileModeWriteBinary);
}

BooleanT FileTmpOpenInput(FileTmpDescriptorT* pHandle, const char* pstrFileName) {
    return FileTmpOpen(pHandle, pstrFileName, FileModeReadBinary);
}

BooleanT FileTmpOpenUnique(FileTmpDescriptorT* /*pHandle*/) { return FALSE; }

BooleanT FileTmpClose(FileTmpDescriptorT* pHandle) {
    if (pHandle == nullptr || *pHandle == nullptr) return FALSE;
    const BooleanT bResult = FileSysFClose(&(*pHandle)->pfileHandle);
    MemFree(&(*pHandle)->pstrFileName);
    MemFree(pHandle);
    return bResult;
}

BooleanT FileTmpWriteString(FileTmpDescriptorT handle, const char* pstrSource) {
    return handle == nullptr ? FALSE : FileSysFPutString(handle->pfileHandle, pstrSource);
}

BooleanT FileTmpReadString(FileTmpDescriptorT handle, char* pstrBuffer, int32* plSize) {
    if (handle == nullptr || pstrBuffer == nullptr || plSize == nullptr || *plSize < 1)
        return FALSE;
    int32 lStored = 0;
    int iChar = 0;
    while ((iChar = getc(handle->pfileHandle)) != EOF) {
        if (lStored < *plSize - 1) pstrBuffer[lStored++] = static_cast<char>(iChar);
    }
    pstrBuffer[lStored] = 0;
    *plSize = lStored + 1;
    return BooleanFrom(ferror(handle->pfileHandle) == 0);
}

BooleanT FileTmpDelete(const char* pstrFileName) {
    if (pstrFileName == nullptr ||
        std::string_view(pstrFileName).find('/') != std::string_view::npos)
        return FALSE;
    PoolPtr<char> pstrPath(FileTmpBuildPath(pstrFileName));
    return FileDelete(pstrPath.Get());
}

BooleanT FileTmpDeleteAll() { return FileTmpDeleteMatching({false, 0, TRUE}); }

BooleanT FileTmpDeleteOwnedFiles(ProcIdT tOwner) {
    return FileTmpDeleteMatching({true, tOwner, TRUE});
}
