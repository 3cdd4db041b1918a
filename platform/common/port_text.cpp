#include "platform/common/port_text.h"

#include <cstdio>
#include <cstring>

namespace porttext {
namespace {

bool number(const char** p, uint32_t* value)
{
    const char* q = *p;
    uint32_t v = 0;
    int digits = 0;
    while (*q >= '0' && *q <= '9') {
        v = v * 10 + (uint32_t)(*q - '0');
        if (++digits > 3 || v > 255)
            return false;
        ++q;
    }
    if (digits == 0)
        return false;
    *p = q;
    *value = v;
    return true;
}

}  // namespace

bool parse(const char* text, up* handle)
{
    if (text == nullptr || handle == nullptr)
        return false;
    const char* p = text;
    while (*p == ' ' || *p == '\t')
        ++p;
    uint32_t a, b, c;
    if (p[0] == 'p' && p[1] == 'o') {
        const char* q = p + 2;
        if (!number(&q, &a) || *q != '\0')
            return false;
        *handle = UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, a);
        return true;
    }
    const char* q = p;
    if (number(&q, &a) && *q++ == '/' && number(&q, &b) && *q++ == '/' && number(&q, &c) && *q == '\0') {
        *handle = UP_MAKE(UP_TYPE_PHYSICAL, a, b, c);
        return true;
    }
    return false;
}

std::string name(up handle)
{
    char text[UP_STR_BUF];
    memset(text, 0, sizeof text);
    if (usUp2Str(handle, text, 0) == 0 && text[0] != '\0') {
        text[sizeof text - 1] = '\0';
        return text;
    }
    char hex[16];
    snprintf(hex, sizeof hex, "0x%08x", (unsigned)handle);
    return hex;
}

}  // namespace porttext
