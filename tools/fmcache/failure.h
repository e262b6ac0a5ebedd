// Exit statuses, and the exceptions that end a verb; main prints the line and returns the status.
#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

#include "RtString.h"

/// The exit status means the same in all verbs.
enum ExitStatus : int {
    STATUS_DONE = 0,
    STATUS_FINDINGS =
        1, ///< the verb has done its work and found damage, or a budget that it cannot meet
    STATUS_USAGE =
        2, ///< invalid command line; nothing was done. The line ends with a hint to the help
    STATUS_FAILED = 3, ///< the verb could not do all of its work
    STATUS_INTERRUPTED = 130,
};

/// An error message for the user: lower case, without line end and program name.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& text, int status = STATUS_FAILED)
        : std::runtime_error(text), m_status(status) {}
    int Status() const { return m_status; }

private:
    int m_status; // of the process
};

/// A stop signal arrived.
class Interrupted {};

/// The text of an errno value. Unlike std::strerror, thread-safe.
inline std::string ErrorText(int error) { return std::generic_category().message(error); }

inline std::string Quoted(const std::string& text) { return "'" + text + "'"; }

inline std::string ToString(const CRtString& text) { return std::string(text.view()); }
