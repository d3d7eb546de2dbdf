// Result codes of the runtime's system helpers (process owner, directory listing); 0 is success.
#pragma once

// A null or empty path, a pid that cannot name a process.
constexpr long SYS_E_INVALIDARG = 0xFE0A0002L;
// The file, directory, process or user does not exist.
constexpr long SYS_E_NOT_FOUND = 0xFE0A0003L;
// The system refused access.
constexpr long SYS_E_ACCESS_DENIED = 0xFE0A0004L;
// A path component that must be a directory is not one.
constexpr long SYS_E_NOT_DIRECTORY = 0xFE0A0005L;
// Any other failure of a system call.
constexpr long SYS_E_SYSTEM = 0xFE0A0006L;
