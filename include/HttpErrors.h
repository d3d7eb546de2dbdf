// Result codes of the host runtime's HTTP session (CHttpSessionCurl): unsigned 32-bit values carried in a
// long, 0 for success. Callers pass them on unchanged; the ones a caller may want to tell apart are the
// connection family (0xFE460017), the deliberate abort (0xFE46001C), the server's refusal by status
// (0xFE46001A) and the certificate refusal (0xFE460019).
#pragma once

// Usage errors: the call itself was wrong; nothing went over the network.
constexpr long HTTP_E_INVALID_ARGUMENT = 0xFE460001;  // empty or unparsable URL, scheme not allowed, null
                                                      // buffer, negative length, something the session does
                                                      // not offer (a proxy, a client certificate, a progress
                                                      // callback, another request type or send mode, a body in
                                                      // parts)
constexpr long HTTP_E_NO_REQUEST = 0xFE460002;        // no request is open (never opened, or already closed
                                                      // by the opening thread)
constexpr long HTTP_E_REQUEST_OPEN = 0xFE460003;      // OpenRequest while a request is open
constexpr long HTTP_E_BUSY = 0xFE460004;              // a second SendRequest while one is running
constexpr long HTTP_E_NO_RESPONSE = 0xFE460005;       // the answer asked for before it came

// Set-up errors: the session could not be built or configured.
constexpr long HTTP_E_INIT_FAILED = 0xFE460010;   // libcurl handle or list could not be created
constexpr long HTTP_E_TLS_BACKEND = 0xFE460011;   // libcurl is not built on OpenSSL, so the certificate
                                                  // callback could not gate the handshake
constexpr long HTTP_E_SETUP_FAILED = 0xFE460012;  // libcurl refused an option of the request

// Transfer outcomes. SendRequest's detail word carries libcurl's CURLcode for these, or the HTTP status for
// HTTP_E_STATUS.
//
// The connection family: the request could not be delivered or its answer never arrived whole, for a reason
// of the network or the peer. Host not found, connection refused or reset, the peer closing the connection
// before or while answering (nothing received, a cut-off answer), send and receive errors, and a TLS handshake
// failure that is not a refusal of the server's certificate (protocol or cipher mismatch, an alert from the
// server). Worth retrying later.
constexpr long HTTP_E_SEND_FAILED = 0xFE460017;
// Out of time: the connection was not made within 30 s, the transfer stayed below 1 byte/s for 60 s, or the
// request as a whole outlived the runtime's request time limit or the timeout given to SendRequest.
constexpr long HTTP_E_TIMEOUT = 0xFE460018;
// The server's certificate was not accepted: the certificate callback returned non-zero, or, for a session
// without a callback, the runtime's own verification (trust store and host name) failed.
constexpr long HTTP_E_CERT_REJECTED = 0xFE460019;
// The server answered with a status outside 200-299 (redirects are not followed, so 3xx lands here too). The
// answer's body stays readable through ReadResponse.
constexpr long HTTP_E_STATUS = 0xFE46001A;
// The session was stopped (a CloseRequest other than the opener's own, see CloseRequest): the request running
// then, and every later one, ends with this. Not a fault of the server or the network: the caller asked for it.
constexpr long HTTP_E_ABORTED = 0xFE46001C;
// Any other transfer failure (a malformed answer, an unsupported feature of the server's answer, an internal
// error of libcurl, no memory left to keep the answer).
constexpr long HTTP_E_TRANSFER_FAILED = 0xFE46001D;
