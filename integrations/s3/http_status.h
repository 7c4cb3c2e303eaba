#pragma once

namespace kelm::s3 {

/// The numbers that say what a server makes of a request (RFC 9110).
enum HTTPStatus {
    kOK = 200,
    kPartialContent = 206,
    kFirstRedirection = 300,
    kMovedPermanently = 301,
    kFound = 302,
    kSeeOther = 303,
    kTemporaryRedirect = 307,
    kPermanentRedirect = 308,
    kFirstClientError = 400,
    kBadRequest = 400,
    kUnauthorized = 401,
    kForbidden = 403,
    kNotFound = 404,
    kConflict = 409,
    kPreconditionFailed = 412,
    kRangeNotSatisfiable = 416,
    kTooManyRequests = 429,
    kInternalServerError = 500,
    kNotImplemented = 501,
    kBadGateway = 502,
    kServiceUnavailable = 503,
    kGatewayTimeout = 504,
};

/// Whether a status is one of success.
constexpr bool isSuccess(int status) {
    return status >= kOK && status < kFirstRedirection;
}

} // namespace kelm::s3
