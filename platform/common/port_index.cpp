#include "platform/common/port_index.h"

#include <stdio.h>

namespace portindex {

uint32_t count(uint32_t maxUnit) { return maxUnit * kPortsPerUnit + kMaxPortChannels; }

up handleOf(uint32_t index, uint32_t maxUnit)
{
    uint32_t physical = maxUnit * kPortsPerUnit;
    if (index < physical)
        return UP_MAKE(UP_TYPE_PHYSICAL, index / kPortsPerUnit + 1, 0, index % kPortsPerUnit + 1);
    if (index - physical < kMaxPortChannels)
        return UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, index - physical + 1);
    return UP_INVALID;
}

uint32_t fromIndex(up* handle, uint32_t index, uint32_t flag, uint32_t maxUnit)
{
    if (!handle)
        return 1;
    if (flag == 0) {
        if (index == 0) {
            *handle = UP_INVALID;
            return 0;
        }
        index -= 1;
    }
    *handle = handleOf(index, maxUnit);
    return 0;
}

uint32_t unitBase(uint32_t unit) { return unit == 0 ? 0 : (unit - 1) * kPortsPerUnit; }

uint32_t slotBase(uint32_t slot) { return slot * kPortsPerUnit; }

bool validPhysical(up handle, uint32_t ports)
{
    return UP_KIND(handle) == UP_TYPE_PHYSICAL && UP_SLOT(handle) == 0 && UP_PORT(handle) >= 1 &&
           UP_PORT(handle) <= ports;
}

bool validChannel(up handle, uint32_t channels)
{
    return UP_KIND(handle) == UP_TYPE_PORT_CHANNEL && UP_PORT(handle) >= 1 && UP_PORT(handle) <= channels;
}

bool bit(up handle, uint32_t* word, uint32_t* bitOut)
{
    uint32_t w, b;
    if (UP_KIND(handle) == UP_TYPE_PHYSICAL) {
        uint32_t unit = UP_UNIT(handle);
        if (unit == 0)
            return false;
        uint32_t n = slotBase(UP_SLOT(handle)) + UP_PORT(handle);
        w = (unit - 1) * 3 + (n / 32) % 3;
        b = n % 32;
    } else if (UP_KIND(handle) == UP_TYPE_PORT_CHANNEL) {
        if (UP_PORT(handle) == 0)
            return false;
        uint32_t m = UP_PORT(handle) - 1;
        w = 3 + (m / 32) % 3;
        b = m % 32;
    } else {
        return false;
    }
    if (w >= 6)
        return false;
    *word = w;
    *bitOut = b;
    return true;
}

bool inList(const uint32_t words[6], up handle)
{
    uint32_t w, b;
    return bit(handle, &w, &b) && ((words[w] >> b) & 1u) != 0;
}

void addToList(uint32_t words[6], up handle)
{
    uint32_t w, b;
    if (bit(handle, &w, &b))
        words[w] |= 1u << b;
}

void text(up handle, char* out)
{
    if (UP_KIND(handle) == UP_TYPE_PHYSICAL)
        snprintf(out, UP_STR_BUF, "%u/%u/%u", (unsigned)UP_UNIT(handle), (unsigned)UP_SLOT(handle),
                 (unsigned)UP_PORT(handle));
    else if (UP_KIND(handle) == UP_TYPE_PORT_CHANNEL)
        snprintf(out, UP_STR_BUF, "po%u", (unsigned)UP_PORT(handle));
    else
        snprintf(out, UP_STR_BUF, "unknown");
}

}  // namespace portindex
