// Process-wide settings that the host gives the runtime's HTTPS layer. The plug-in never calls these; a host,
// the demo or a test does, before the first request.
#pragma once

#include <string>
#include <vector>

#include "ApiExport.h"

namespace SuiteRuntime {

// A PEM file of CA certificates trusted instead of the system trust store; empty selects the system store.
SC_API void SetTrustedCAFile(const std::string& path);
SC_API std::string GetTrustedCAFile();

// Connection redirections, each "HOST:PORT:CONNECT-TO-HOST:CONNECT-TO-PORT": a request for HOST:PORT goes to
// the other address while TLS and the Host header keep the original name.
SC_API void SetConnectTo(const std::vector<std::string>& entries);
SC_API std::vector<std::string> GetConnectTo();

// The longest one HTTP request may take, from its start to the last byte of its answer, in milliseconds; a
// request still running then fails with HTTP_E_TIMEOUT. 0 restores the default, 1800000. A bound at all,
// because the feedback agent runs every timer on one thread and a server that trickles its answer would
// otherwise hold the whole schedule; 30 minutes, the agent's retry interval, so a stuck post ends before its
// own retry is due.
SC_API void SetRequestTimeLimitMs(unsigned long milliseconds);
SC_API unsigned long GetRequestTimeLimitMs();

}  // namespace SuiteRuntime
