#include "integrations/s3/server_error.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "integrations/s3/http_status.h"
#include "integrations/s3/xml_text.h"
#include "yx/internal/stream_error.h"

namespace kelm::s3 {

namespace {

bool isCodeCharacter(char character) {
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ||
           (character >= '0' && character <= '9');
}

yx::CIOError::Code getIOCode(int status) {
    if (status == kUnauthorized || status == kForbidden)
        return yx::CIOError::AccessDenied;
    return status == kNotFound ? yx::CIOError::NotFound : yx::CIOError::IOFailure;
}

std::string makeWords(int status, std::string const& code) {
    std::string const number = std::to_string(status);
    if (status == kUnauthorized || status == kForbidden)
        return "The server refuses it (" + number + (code.empty() ? "" : " " + code) + ").";
    if (status == kNotFound) {
        return code == "NoSuchBucket" ? "There is no such bucket."
                                      : std::generic_category().message(ENOENT);
    }
    if (status >= kFirstRedirection && status < kFirstClientError)
        return "The server leads elsewhere (" + number + (code.empty() ? "" : " " + code) + ").";
    return "The server answers " + number + (code.empty() ? "" : " (" + code + ")") + ".";
}

} // namespace

std::string findErrorCode(HTTPAnswer const& answer) {
    constexpr std::size_t kMaxLength = 64;
    std::string const code = findText(answer.body, "Code").value_or("");
    bool const isCode = code.size() <= kMaxLength && std::ranges::all_of(code, isCodeCharacter);
    return isCode ? code : "";
}

yx::CIOError makeAnswerError(char const* beginning, HTTPAnswer const& answer, yx::CURI const& uri) {
    return yx::CIOError(
        getIOCode(answer.status),
        yx::String::fromUTF8(beginning + makeWords(answer.status, findErrorCode(answer))),
        yx::detail::makeUriProps(uri), nullptr);
}

yx::CIOError makeServerError(char const* beginning, std::string const& words, yx::CURI const& uri) {
    return yx::CIOError(yx::CIOError::IOFailure, yx::String::fromUTF8(beginning + words),
                        yx::detail::makeUriProps(uri), nullptr);
}

void throwReplaced(yx::CURI const& uri) {
    throw yx::CIOError(yx::CIOError::IOFailure, "The object was replaced while it was read.",
                       yx::detail::makeUriProps(uri), nullptr);
}

void throwStoreIsReadOnly(yx::CURI const& uri) {
    throw yx::CIOError(yx::CIOError::AccessDenied, "The store is for reading only.",
                       yx::detail::makeUriProps(uri), nullptr);
}

void throwObjectExists(yx::CURI const& uri) {
    throw yx::CIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                       yx::detail::makeUriProps(uri), nullptr);
}

} // namespace kelm::s3
