// What the plug-in exports: exactly the classes other modules use, and nothing internal.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>

namespace {

// Demangled names of the defined dynamic symbols of a shared library, as nm lists them one a line.
std::set<std::string> DynamicSymbols(const std::string& library) {
  std::set<std::string> names;
  std::string command = "nm -DCj --defined-only '" + library + "' 2>/dev/null";
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  for (char line[4096]; pipe && fgets(line, sizeof line, pipe.get());) {
    names.insert(std::string(line, strcspn(line, "\n")));
  }
  return names;
}

bool AnyStartsWith(const std::set<std::string>& names, const std::string& prefix) {
  const auto first = names.lower_bound(prefix);  // the set is sorted: any name with the prefix comes first here
  return first != names.end() && first->rfind(prefix, 0) == 0;
}

}  // namespace

// Alone in a process without the runtime, so every library the plug-in needs must be named by the plug-in, and
// every runtime symbol it calls must be exported: the load resolves them all at once.
TEST(Exports, PluginLoadsLikeAHostLoadsIt) {
  void* handle = dlopen(OVF_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  EXPECT_EQ(dlclose(handle), 0);
}

TEST(Exports, PluginExportsItsPublicClassesOnly) {
  std::set<std::string> names = DynamicSymbols(OVF_PLUGIN_PATH);
  ASSERT_FALSE(names.empty()) << "nm gave nothing for " << OVF_PLUGIN_PATH;
  for (const char* exported : {"CBencode::", "CBencodeList::", "CBencodeDictionary::", "CBencodeStream::",
                               "OvRuntime::Utils::", "CDeviceInfo::", "CPhoneHomeUtility::",
                               "PHONEHOME_STATUS_FILENAME", "CPhoneHomeAgent::"}) {
    EXPECT_TRUE(AnyStartsWith(names, exported)) << exported << " is not exported";
  }
  // The host finds the entry points by their plain names; the named limits are members with storage of their
  // own, which a module can link against.
  for (const char* exact : {"GetAvailableInterfaces", "CreatePlugin", "DisposePlugin", "g_AvailableInterfaces",
                            "CBencodeStream::sm_iMaxIntSize", "CBencodeStream::sm_fileCreationMode",
                            "CBencodeStream::sm_iMaxFileSize", "CBencode::sm_iMaxStringSize",
                            "CBencode::sm_iMaxNestingDepth"}) {
    EXPECT_EQ(names.count(exact), 1u) << exact << " is not exported under that name";
  }
  // Internal classes stay inside, and so does what makes the bencode classes fast.
  for (const char* internal : {"PhoneHomeXmlMgr::", "CFileUploader::", "CPhoneHomeStatus::", "CPhoneHomePlugin::",
                               "CAppLog::", "CHttpSessionCurl::", "CBencodeNodePool::", "CBencodeStream::CBuffer::",
                               "BencodeInternal::"}) {
    EXPECT_FALSE(AnyStartsWith(names, internal)) << internal << " leaks out of the plug-in";
  }
}
