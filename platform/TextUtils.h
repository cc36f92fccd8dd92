#ifndef VORN_PLATFORM_TEXTUTILS_H
#define VORN_PLATFORM_TEXTUTILS_H

class TextUtils {
public:
    // true for a null or empty text.
    static bool IsEmpty(char const* text) { return text == nullptr || text[0] == '\0'; }
};

#endif
