// Configuration in this machine's files (cfg.h says what the operations do). pstrAltPath names the
// directory of the file, relative to the home directory; null stands for "config".
#pragma once

#include "core/types.h"

char* CfgLocalBuildPath(const char* pstrFileName);  // in "config"; the caller's

BooleanT CfgLocalGetStanza(StnzT** ppStanza, const char* pstrStanzaFile,
                           const char* pstrStanzaTitle, const char* pstrAltPath);
BooleanT CfgLocalGetStanzaList(ListO* poList, const char* pstrStanzaFile, const char* pstrAltPath);
BooleanT CfgLocalReplaceStanzaList(const char* pstrStanzaFile, ListO oList,
                                   const char* pstrAltPath);
BooleanT CfgLocalAddStanza(StnzT* pStanza, const char* pstrStanzaFile, const char* pstrAltPath);
BooleanT CfgLocalReplaceStanza(StnzT* pStanza, const char* pstrStanzaFile, const char* pstrAltPath);
BooleanT CfgLocalRemoveStanza(const char* pstrCatagory, const char* pstrStanzaFile,
                              const char* pstrTitle, const char* pstrAltPath);

BooleanT CfgLocalGetKey(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                        const char* pstrKeyword, StnzKeyT** ppKey, const char* pstrAltPath);
BooleanT CfgLocalGetString(char** ppstrValue, const char* pstrStanzaFile,
                           const char* pstrStanzaTitle, const char* pstrKeyword,
                           const char* pstrAltPath, const char* pstrDefault);
BooleanT CfgLocalGetInteger(int32* plValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                            const char* pstrKeyword, const char* pstrAltPath, int32 lDefault);
BooleanT CfgLocalGetInt64(int64* pllValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                          const char* pstrKeyword, const char* pstrAltPath, int64 llDefault);
BooleanT CfgLocalGetBoolean(BooleanT* pbValue, const char* pstrStanzaFile,
                            const char* pstrStanzaTitle, const char* pstrKeyword,
                            const char* pstrAltPath, BooleanT bDefault);
BooleanT CfgLocalGetValueList(ListO* poValueList, const char* pstrStanzaFile,
                              const char* pstrStanzaTitle, const char* pstrKeyword,
                              const char* pstrAltPath);

BooleanT CfgLocalSetString(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                           const char* pstrKeyword, const char* pstrValue, const char* pstrAltPath);
BooleanT CfgLocalSetInteger(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                            const char* pstrKeyword, int32 lValue, const char* pstrAltPath);
BooleanT CfgLocalSetInt64(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                          const char* pstrKeyword, int64 llValue, const char* pstrAltPath);
BooleanT CfgLocalSetBoolean(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                            const char* pstrKeyword, BooleanT bValue, const char* pstrAltPath);
BooleanT CfgLocalSetValueList(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                              const char* pstrKeyword, ListO oValueList, const char* pstrAltPath);

BooleanT CfgLocalAddValueToKey(const char* pstrFileName, const char* pstrStanzaName,
                               const char* pstrKeyName, const char* pstrNewValue,
                               const char* pstrAltPath);
BooleanT CfgLocalRemoveValueFromKey(const char* pstrFileName, const char* pstrStanzaName,
                                    const char* pstrKeyName, const char* pstrValueToRemove,
                                    const char* pstrAltPath);
BooleanT CfgLocalRemoveKey(const char* pstrFileName, const char* pstrStanzaName,
                           const char* pstrKeyName, const char* pstrAltPath);
BooleanT CfgLocalAddEntryToValueList(ListO* poValueList, const char* pstrStanzaFile,
                                     const char* pstrStanzaTitle, const char* pstrKeyword,
                                     const char* pstrEntry, BooleanT bUnique, BooleanT bNoCase,
                                     const char* pstrAltPath);
BooleanT CfgLocalRemoveEntryFromValueList(ListO* poValueList, const char* pstrStanzaFile,
                                          const char* pstrStanzaTitle, const char* pstrKeyword,
                                          const char* pstrEntry, BooleanT bNoCase,
                                          const char* pstrAltPath);

// --- on a path already built ---

// Adds a key, or replaces every key of its keyword, in the stanza "[title:keyword]"; without a
// title in "[keyword]". Takes the key over.
BooleanT CfgLocalAddKey(const char* pstrConfigFileName, const char* pstrStanzaTitle,
                        const char* pstrKeyword, StnzKeyT** pptKey, BooleanT bReplace);
// TRUE when the file holds the item in the displayable layout.
BooleanT CfgLocalGotCategory(const char* pstrFile, const char* pstrTitle, const char* pstrKeyword);
