// Why a trapped frame left on no port. The module reports its frame
// decisions as debug lines only; the replay tool and the live platform both
// name a drop by the most telling line the frame caused.
#pragma once

#include <string>
#include <vector>

namespace dropreason {

// Lines one at a time (bounded: only the best match so far is kept), as
// messages without prefix, suffix or line ends.
class Classifier {
public:
    void add(const std::string& line);
    void add(const char* line, size_t len);
    // "dropped" when no line told anything.
    std::string reason() const;
    void clear();

private:
    size_t best_ = (size_t)-1;  // index of the best rule matched
    bool moduleError_ = false;
};

std::string dropReason(const std::vector<std::string>& lines);

}  // namespace dropreason
