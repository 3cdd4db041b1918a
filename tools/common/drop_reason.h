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

// False when no line that starts with these len bytes can name anything
// (neither a rule nor a module error): such a line need not be formatted.
bool mayMatter(const char* start, size_t len);
// False when no line composed from this format (as the module passes it to
// debugPrintf: the debug prefix, a blank, the message) can name anything, so
// the line need not be formatted at all: decided on the message's literal
// text, each conversion standing for any text it could print. True for
// anything but a debug line's composition (error lines among them).
bool formatMayMatter(const char* format);
// The texts mayMatter checks against: every rule's, then the module error's.
std::vector<std::string> ruleTexts();

}  // namespace dropreason
