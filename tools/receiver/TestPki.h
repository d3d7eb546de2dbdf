// A throw-away PKI for the local receiver: a test CA, a server certificate for the feedback hosts, and three
// certificates a client must refuse. The demo serves with it (ovfeedback-receiver --make-certs DIR); the TLS
// test fixture makes the receiver present each certificate in turn.
#pragma once

#include <string>

namespace TestPki {

// Names the good certificates carry, besides localhost and 127.0.0.1.
constexpr const char* kPrimaryHost = "feedback.velmar.example";
constexpr const char* kSecondaryHost = "feedback2.velmar.example";

// Files written into the directory. All server certificates share one EC P-256 key.
constexpr const char* kCAFile = "ca.pem";                 // the test CA, the one a client trusts
constexpr const char* kServerCertFile = "server.pem";     // by the test CA, for the names above
constexpr const char* kServerKeyFile = "server-key.pem";  // the shared key (mode 0600)
constexpr const char* kWrongHostFile = "wrong-host.pem";  // by the test CA, for wrong.velmar.example only
constexpr const char* kExpiredFile = "expired.pem";       // by the test CA, the right names, expired a day ago
constexpr const char* kUnknownCAFile = "unknown-ca.pem";  // the right names, by a second CA that is written nowhere
// By the test CA for *.wild.velmar.example, and for f*.velmar.example and *back2.velmar.example: wildcards
// inside a label, which must match nothing.
constexpr const char* kWildcardFile = "wildcard.pem";

// Writes a fresh set into `dir` (made when missing; files of the same names are replaced). Throws
// std::runtime_error saying what failed.
void Write(const std::string& dir);

}  // namespace TestPki
