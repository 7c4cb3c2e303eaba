#pragma once

#include <string>

#include "integrations/s3/http_connections.h"
#include "yx/error.h"
#include "yx/uri.h"

namespace kelm::s3 {

/// How messages begin.
inline constexpr char kCannotOpen[] = "Cannot open the file: ";
inline constexpr char kCannotQuery[] = "Cannot query the file: ";
inline constexpr char kCannotRead[] = "Cannot read from the file: ";
inline constexpr char kCannotList[] = "Cannot list the folder: ";
inline constexpr char kCannotUpload[] = "Cannot upload the file: ";

/// The code that the body of an answer names, such as "SlowDown"; empty if there is none. Letters
/// and digits only, whatever the server sends.
std::string findErrorCode(HTTPAnswer const& answer);

/// The error for an answer that is no success, with "uri". What the server says beyond its code is
/// left out, since it may repeat what was sent.
///
/// | Status   | Code         | The message goes on                             |
/// |----------|--------------|-------------------------------------------------|
/// | 401, 403 | AccessDenied | "The server refuses it (403 NAME)."             |
/// | 404      | NotFound     | the words of the operating system, or           |
/// |          |              | "There is no such bucket."                      |
/// | 3xx      | IOFailure    | "The server leads elsewhere (301 NAME)."        |
/// | others   | IOFailure    | "The server answers 503 (NAME)."                |
yx::CIOError makeAnswerError(char const* beginning, HTTPAnswer const& answer, yx::CURI const& uri);

/// `IOFailure` with "uri" and a message of one's own behind the beginning.
yx::CIOError makeServerError(char const* beginning, std::string const& words, yx::CURI const& uri);

/// `IOFailure`: "The object was replaced while it was read." with "uri".
[[noreturn]] void throwReplaced(yx::CURI const& uri);

/// `AccessDenied`: "The store is for reading only." with "uri".
[[noreturn]] void throwStoreIsReadOnly(yx::CURI const& uri);

/// `AlreadyExists`: "The file exists already." with "uri".
[[noreturn]] void throwObjectExists(yx::CURI const& uri);

} // namespace kelm::s3
