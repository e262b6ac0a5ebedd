// How a verb ends without success: it throws one of these, and main makes the line and the status.
#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

#include "RtString.h"

/// What went wrong, in words for the user: lower case, no line end, no program name.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& text, int status = 1)
        : std::runtime_error(text), m_status(status) {}
    int Status() const { return m_status; }

private:
    int m_status; // of the process
};

/// The user asked to stop.
class Interrupted {};

/// The text of an error number of the C library, which std::strerror gives to one thread only.
inline std::string ErrorText(int error) { return std::generic_category().message(error); }

inline std::string Quoted(const std::string& text) { return "'" + text + "'"; }

inline std::string ToString(const CRtString& text) { return std::string(text.view()); }
