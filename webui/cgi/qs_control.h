#pragma once

#include <cstdint>
#include <map>
#include <string>

/// The parameters of the request, decoded. Read once at start-up; a request that holds mark-up which could be injected
/// into a page is refused as a whole.
class CQSControl {
public:
    enum Method : int32_t { GET = 0, POST = 1 };

    /// Reads the request from the environment, for a POST from the first line of standard input. False when it holds
    /// mark-up; a missing or unknown method gives true and no parameters.
    bool initialize();

    /// Fills the table from a request text as it travels, "name=value&name=value" with URL escapes; the first
    /// occurrence of a name wins. False when a decoded part of it holds mark-up.
    bool parse(std::string text);

    /// The value of a parameter: as text ("" when it is missing), or as int by stream extraction (0 when it is missing
    /// or does not begin with a number; too large a number gives the nearest int).
    template <typename T>
    T getEnv(const std::string& name) const;
    std::string getEnv(const std::string& name) const;

    /// Decodes URL escapes up to the first NUL byte. Digits are not validated; an escape cut off by the end of the text
    /// stays as it is.
    static std::string unescape_url(const std::string& s);
    /// One byte from two hexadecimal digits; others give a byte by the same arithmetic.
    static char x2c(char hi, char lo);

    int32_t requestMethod() const { return method_; }
    const std::map<std::string, std::string>& parameters() const { return parameters_; }

private:
    int32_t method_ = GET;
    std::map<std::string, std::string> parameters_;
};

template <>
std::string CQSControl::getEnv<std::string>(const std::string& name) const;
template <>
int CQSControl::getEnv<int>(const std::string& name) const;

inline std::string CQSControl::getEnv(const std::string& name) const { return getEnv<std::string>(name); }
