// The runtime's user-interface texts.
#include "UITranslator.h"

const char* UITranslator::translate(EStringId id) {
  switch (id) {
    case PhoneHomeComponentName: return "Customer Experience Feedback";
    case PhoneHomeWithCrashDumpName: return "Customer Experience Feedback with Crash Reports";
  }
  return "";
}
