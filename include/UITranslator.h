// User-interface texts of the host runtime, looked up by id. This build carries the English catalogue.
#pragma once

#include "ApiExport.h"

class SC_API UITranslator {
 public:
  enum EStringId {
    PhoneHomeComponentName,
    PhoneHomeWithCrashDumpName,
  };

  // The text of id; an unknown id gives "" rather than null. The text lives as long as the process.
  static const char* translate(EStringId id);
};
