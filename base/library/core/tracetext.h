// Texts for messages.
#pragma once

// A text that may be missing.
constexpr const char* TraceText(const char* pstrText) {
    return pstrText == nullptr ? "(null)" : pstrText;
}
