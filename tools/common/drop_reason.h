// Why a trapped frame left on no port. The module reports its frame
// decisions as debug lines only; the replay tool and the live platform both
// name a drop by the most telling line the frame caused.
#pragma once

#include <cstdarg>
#include <cstddef>
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
// The same for one line about to be formatted, with the arguments that
// follow the format: false when its message (the line without the debug
// prefix and line ends) can name nothing. Formats the message alone, not
// the line; true for anything but a debug line's composition, and for a
// message too long to look at here. Reads args (pass a copy).
bool lineMayMatter(const char* format, va_list args);
// The texts mayMatter checks against: every rule's, then the module error's.
std::vector<std::string> ruleTexts();

}  // namespace dropreason
