// Symbol export markers: symbols are hidden by default and only these leave a shared library.
#pragma once

// Exported by libsuitecommon.so, the host runtime.
#define SC_API __attribute__((visibility("default")))
// Exported by libovfeedback.so, the plug-in.
#define OVF_API __attribute__((visibility("default")))
