// Strings from lists of wrapper objects and lists of string objects from strings.
//
// The joining functions skip items of another class (and string objects without a value) and store
// a new string of the default pool, owned by the caller. FALSE, with nothing stored, when nothing
// was joined, for a null result and, traced, for what is no sound list.
#pragma once

#include "core/types.h"

BooleanT StrFromValueList(const char** ppstrResult, ListO oValueList);  // integers, joined by ", "
BooleanT StrFromStrList(const char** ppstrResult, ListO oStrList);      // strings, joined by ", "
BooleanT StrFromStrListWithDelimiter(char** ppstrResult, ListO oStrList, const char* pstrDelim);
// Integers as dotted decimal addresses, joined by ", ".
BooleanT StrFromIpList(char** ppstrResult, ListO oIpList);
// Network addresses as their numeric texts without ports, joined by "," and a line feed.
BooleanT StrFromAddressList(char** ppstrResult, ListO oAddressList);

// New lists of string objects, held by the caller; FALSE, with nothing stored, for null arguments.

// The values between commas, without the blanks and tabs around each. The empty string gives an
// empty list; otherwise every comma ends a value, empty or not, and what follows the last is one
// more.
BooleanT StrValueListFromString(ListO* poValueList, const char* pstrValues);
BooleanT StrValueListFromArray(ListO* poList, char** ppstrStrings);  // the array ends with null

// Inserts a new string object in case-insensitive order, behind equal ones. FALSE, traced, for null
// or what is no list.
BooleanT StrInsertInList(ListO oList, const char* pstrString);
