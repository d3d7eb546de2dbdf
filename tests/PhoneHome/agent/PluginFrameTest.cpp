// The feedback service object's callback slot, as the agent reads it through its owner.
#include <gtest/gtest.h>

#include "IPhoneHomePluginCB.h"
#include "LogCapture.h"
#include "PhoneHome/PhoneHomePluginImp.h"

namespace {

class Callback : public IPhoneHomePluginCB {
 public:
  long GetSettingsCB(IBencodeSettings*) override { return 0; }
};

}  // namespace

TEST(PluginFrame, NullCallbackIsRefusedAndTheOneSetStays) {
  LogCapture log;
  long err = -1;
  CPhoneHomePlugin service(err);
  ASSERT_EQ(err, 0);
  Callback first, second;
  EXPECT_EQ(service.GetPhoneHomePluginCB(), nullptr);
  EXPECT_EQ(service.SetPhoneHomePluginCB(nullptr), -6);
  EXPECT_EQ(service.GetPhoneHomePluginCB(), nullptr);
  EXPECT_EQ(service.SetPhoneHomePluginCB(&first), 0);
  EXPECT_EQ(service.SetPhoneHomePluginCB(nullptr), -6);
  EXPECT_EQ(service.GetPhoneHomePluginCB(), &first);
  EXPECT_EQ(service.SetPhoneHomePluginCB(&second), 0);
  EXPECT_EQ(service.GetPhoneHomePluginCB(), &second);
  EXPECT_EQ(service.UnSetPhoneHomePluginCB(), 0);
  EXPECT_EQ(service.GetPhoneHomePluginCB(), nullptr);
  // A refused callback is not worth a log line.
  EXPECT_TRUE(log.Records().empty()) << log.Dump();
}
