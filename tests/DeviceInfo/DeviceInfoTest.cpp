// Device identity on fake trees (mount table, by-uuid links, vendor file made in a temporary directory), and
// the exported operations on the real machine where only what holds anywhere is asserted.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "DeviceInfo/DeviceInfo.h"
#include "DeviceInfo/DeviceInfoFiles.h"
#include "TempDir.h"

namespace {

constexpr char kEmptyUdid[] = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
constexpr char kUuid[] = "4f3c9a1e-2b7d-4c55-9e0a-1d2f3b4c5d6e";
constexpr char kUuidSha1[] = "8fdce318c5cab2d5b79a2be61c0e421d7786d9c0";

// A machine made of files: "mtab", "by-uuid/", "sys_vendor" and device nodes under "dev/", each test with
// caches of its own. In a mount table written here, "@" stands for the tree's root directory.
struct FakeMachine {
  TempDir dir;
  CDeviceInfoFiles::Sources sources{dir.File("mtab"), dir.File("by-uuid"), dir.File("sys_vendor")};
  std::string vendorCache;
  std::vector<unsigned char> idCache;
  CDeviceInfoFiles files{sources, vendorCache, idCache};

  FakeMachine() {
    mkdir(dir.File("dev").c_str(), 0755);
    mkdir(dir.File("dev/mapper").c_str(), 0755);
  }
  void MountTable(const std::string& text) {
    std::string out;
    for (char c : text) out += c == '@' ? Escaped(dir.path()) : std::string(1, c);
    dir.Write("mtab", out);
  }
  void Link(const std::string& name, const std::string& target) {
    mkdir(sources.byUuidDir.c_str(), 0755);  // by-uuid entries and dev/ entries alike
    ASSERT_EQ(symlink(target.c_str(), dir.File(name).c_str()), 0) << name;
  }
  std::string Id() {
    std::vector<unsigned char> id = {'x'};
    EXPECT_EQ(files.getDeviceID(id), 0);
    return std::string(id.begin(), id.end());
  }
  static std::string Escaped(const std::string& path) {
    std::string out;
    for (char c : path) out += c == ' ' ? std::string("\\040") : std::string(1, c);
    return out;
  }
};

}  // namespace

TEST(DeviceInfoFiles, RootDeviceName) {
  struct Row {
    const char* name;
    const char* mountTable;
    const char* aliasTarget;  // dev/mapper/vg-root links here when set
    const char* expected;
  } rows[] = {
      {"plain", "proc /proc proc rw 0 0\n@/dev/sda1 / ext4 rw 0 0\n", nullptr, "sda1"},
      {"mapper alias", "@/dev/mapper/vg-root / ext4 rw 0 0\n", "../dm-0", "dm-0"},
      {"alias text without a slash", "@/dev/mapper/vg-root / ext4 rw 0 0\n", "dm-0", ""},
      {"rootfs first", "rootfs / rootfs rw 0 0\n@/dev/sda1 / ext4 rw 0 0\n", nullptr, "sda1"},
      {"overlay first", "overlay / overlay rw,lowerdir=/x 0 0\n@/dev/sda2 / ext4 rw 0 0\n", nullptr, "sda2"},
      {"real then pseudo", "@/dev/sda1 / ext4 rw 0 0\noverlay / overlay rw 0 0\n", nullptr, "sda1"},
      {"first real kept", "@/dev/sda1 / ext4 rw 0 0\n@/dev/sdb1 / ext4 rw 0 0\n", nullptr, "sda1"},
      {"pseudo only", "overlay / overlay rw 0 0\n", nullptr, ""},
      {"no root entry", "@/dev/sda1 /home ext4 rw 0 0\n", nullptr, ""},
      {"empty", "", nullptr, ""},
  };
  for (const Row& r : rows) {
    FakeMachine m;
    m.MountTable(r.mountTable);
    if (r.aliasTarget) m.Link("dev/mapper/vg-root", r.aliasTarget);
    EXPECT_EQ(m.files.getDeviceNameForRoot(), r.expected) << r.name;
  }
  FakeMachine noTable;
  EXPECT_EQ(noTable.files.getDeviceNameForRoot(), "");
}

TEST(DeviceInfoFiles, DeviceIdAndUdidFromTheMatchingLink) {
  struct Row {
    const char* name;
    const char* mountTable;
    bool mapperAlias;
    std::vector<std::pair<std::string, std::string>> links;  // by-uuid entry -> link text
  } rows[] = {
      {"plain", "@/dev/sda1 / ext4 rw 0 0\n", false,
       {{"1111-AAAA", "../../sdb1"}, {"2222-BBBB", "sda1"}, {kUuid, "../../sda1"}, {"3333-CCCC", "../../sda10"}}},
      {"mapper", "@/dev/mapper/vg-root / ext4 rw 0 0\n", true,
       {{"aaaa", "../../dm-01"}, {kUuid, "../../dm-0"}, {"bbbb", "../../sda1"}}},
      {"pseudo first", "rootfs / rootfs rw 0 0\n@/dev/vda1 / xfs rw 0 0\n", false,
       {{"cccc", "../../vda"}, {kUuid, "../../vda1"}}},
  };
  for (const Row& r : rows) {
    FakeMachine m;
    m.MountTable(r.mountTable);
    if (r.mapperAlias) m.Link("dev/mapper/vg-root", "../dm-0");
    for (const auto& [entry, target] : r.links) m.Link("by-uuid/" + entry, target);
    m.dir.Write("by-uuid/sda1", "a regular file named like the device is not a link");

    EXPECT_EQ(m.Id(), kUuid) << r.name;
    char udid[64];
    memset(udid, 'Z', sizeof udid);
    char* buffer = udid;
    unsigned int size = 41;
    ASSERT_EQ(m.files.GetUDID(buffer, size), 0) << r.name;
    EXPECT_STREQ(udid, kUuidSha1) << r.name;
    EXPECT_EQ(size, 41u);
    EXPECT_EQ(udid[41], 'Z') << r.name;
  }
}

TEST(DeviceInfoFiles, UdidWithoutAMatchFailuresAndBufferSizes) {
  FakeMachine m;
  m.MountTable("@/dev/sda1 / ext4 rw 0 0\n");
  char udid[64];
  char* buffer = udid;
  unsigned int size = 41;
  EXPECT_EQ(m.Id(), "");  // no by-uuid directory at all
  ASSERT_EQ(m.files.GetUDID(buffer, size), 0);
  EXPECT_STREQ(udid, kEmptyUdid);
  m.Link("by-uuid/7A1B-22C3", "../../sdb1");
  EXPECT_EQ(m.Id(), "");
  EXPECT_TRUE(m.idCache.empty()) << "no match caches nothing, so the next call searches again";
  m.Link("by-uuid/" + std::string(kUuid), "../../sda1");
  EXPECT_EQ(m.Id(), kUuid);
  ASSERT_EQ(unlink(m.dir.File("by-uuid/" + std::string(kUuid)).c_str()), 0);
  EXPECT_EQ(m.Id(), kUuid) << "a found identifier is kept";

  struct Row {
    bool null;
    unsigned int capacity;
    long rc;
    unsigned int size;
  } rows[] = {{false, 40, DEVICEINFO_ERR_MORE_DATA, 41}, {false, 0, DEVICEINFO_ERR_MORE_DATA, 41},
              {true, 64, DEVICEINFO_ERR_MORE_DATA, 41}, {false, 41, 0, 41}, {false, 64, 0, 64}};
  for (const Row& r : rows) {
    memset(udid, 'Z', sizeof udid);
    buffer = r.null ? nullptr : udid;
    size = r.capacity;
    EXPECT_EQ(m.files.GetUDID(buffer, size), r.rc) << r.capacity;
    EXPECT_EQ(size, r.size) << r.capacity;
    EXPECT_EQ(std::string(udid, 42), (r.rc == 0 ? std::string(kUuidSha1) + '\0' : std::string(41, 'Z')) + 'Z');
  }

  FakeMachine empty;
  empty.MountTable("");
  std::vector<unsigned char> id = {'x'};
  EXPECT_EQ(empty.files.getDeviceID(id), DEVICEINFO_ERR_FAILED);
  EXPECT_TRUE(id.empty());
  buffer = nullptr;  // the lookup fails before the buffer is looked at
  EXPECT_EQ(empty.files.GetUDID(buffer, size), DEVICEINFO_ERR_FAILED);
  EXPECT_EQ(size, 64u);
}

TEST(DeviceInfoFiles, VendorFirstLineAndCache) {
  const std::string longLine(600, 'v');
  struct Row {
    const char* name;
    std::optional<std::string> content;  // none: no vendor file
    long rc;
    std::string vendor;
  } rows[] = {
      {"line", "Acme Inc\n", 0, "Acme Inc"},
      {"two lines", "Acme Inc\nsecond\n", 0, "Acme Inc"},
      {"no newline", "Acme Inc", DEVICEINFO_ERR_NO_VENDOR, ""},
      {"empty", "", DEVICEINFO_ERR_NO_VENDOR, ""},
      {"missing", std::nullopt, DEVICEINFO_ERR_NO_VENDOR, ""},
      {"empty first line", "\nAcme\n", 0, ""},
      {"over 512 bytes, short line", "Big Vendor\n" + longLine, 0, "Big Vendor"},
      // Only the first 512 bytes are read: a first line running past them has no newline to end it.
      {"first line over 512 bytes", longLine + "\n", DEVICEINFO_ERR_NO_VENDOR, ""},
  };
  for (const Row& r : rows) {
    FakeMachine m;
    if (r.content) m.dir.Write("sys_vendor", *r.content);
    char vendor[32];
    memset(vendor, 'Z', sizeof vendor);
    unsigned int size = sizeof vendor;
    EXPECT_EQ(m.files.GetManufacturerName(vendor, size), r.rc) << r.name;
    EXPECT_EQ(size, r.rc == 0 ? r.vendor.size() + 1 : sizeof vendor) << r.name;
    EXPECT_EQ(std::string(vendor, r.vendor.size() + 2), r.rc == 0 ? r.vendor + '\0' + 'Z' : std::string(2, 'Z'));
    EXPECT_EQ(m.vendorCache.empty(), r.rc != 0 || r.vendor.empty()) << r.name;
  }

  FakeMachine m;
  char vendor[16];
  memset(vendor, 'Z', sizeof vendor);
  unsigned int size = sizeof vendor;
  EXPECT_EQ(m.files.GetManufacturerName(vendor, size), DEVICEINFO_ERR_NO_VENDOR);
  m.dir.Write("sys_vendor", "Acme Inc\n");
  size = 8;  // exactly the text's length: no room for the NUL
  EXPECT_EQ(m.files.GetManufacturerName(vendor, size), DEVICEINFO_ERR_MORE_DATA) << "the failure was not cached";
  EXPECT_EQ(size, 9u);
  EXPECT_EQ(vendor[0], 'Z');
  m.dir.Write("sys_vendor", "Other\n");
  EXPECT_EQ(m.files.GetManufacturerName(vendor, size), 0);
  EXPECT_STREQ(vendor, "Acme Inc") << "the vendor found is kept";
  EXPECT_EQ(m.files.GetManufacturerName(nullptr, size), DEVICEINFO_ERR_NULL_BUFFER);
}

TEST(DeviceInfo, PathFreeOperations) {
  CDeviceInfo info;
  struct Row {
    unsigned int capacity;
    long rc;
    unsigned int size;
    const char* text;
  } rows[] = {{0, DEVICEINFO_ERR_MORE_DATA, 4, "ZZZZ"}, {3, DEVICEINFO_ERR_MORE_DATA, 4, "ZZZZ"},
              {4, 0, 4, "x64"},                       {100, 0, 4, "x64"}};
  for (const Row& r : rows) {
    char type[8];
    memset(type, 'Z', sizeof type);
    unsigned int size = r.capacity;
    EXPECT_EQ(info.GetSystemType(type, size), r.rc) << r.capacity;
    EXPECT_EQ(size, r.size) << r.capacity;
    EXPECT_EQ(std::string(type, 4), std::string(r.text, 4)) << r.capacity;
  }

  std::string hex = "poison";
  EXPECT_EQ(info.getSHA1Hash(nullptr, 0, hex), DEVICEINFO_ERR_NO_INPUT);
  EXPECT_EQ(hex, "poison");
  EXPECT_EQ(info.getSHA1Hash(reinterpret_cast<const unsigned char*>("abc"), 3, hex), 0);
  EXPECT_EQ(hex, "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(info.getSHA1Hash(reinterpret_cast<const unsigned char*>(""), 0, hex), 0);
  EXPECT_EQ(hex, kEmptyUdid);

  TempDir dir;
  ASSERT_EQ(symlink("../../sda1", dir.File("link").c_str()), 0);
  dir.Write("file", "x");
  EXPECT_EQ(info.getTargetPath(dir.File("link")), "../../sda1");
  EXPECT_EQ(info.getTargetPath(dir.File("file")), "");
  EXPECT_EQ(info.getTargetPath(dir.File("missing")), "");
  EXPECT_EQ(info.getTargetPath(dir.path()), "");
  EXPECT_EQ(info.getTargetPath(""), "");
}

// Holds on any machine. Where the root device has no "/dev/disk/by-uuid" entry (containers, this project's
// build machines), GetUDID succeeds with the empty-input value; without a "/" entry in "/etc/mtab" it fails.
TEST(DeviceInfo, RealMachine) {
  CDeviceInfo info;
  char expected[256] = {};
  ASSERT_EQ(gethostname(expected, sizeof expected - 1), 0);
  const unsigned int length = static_cast<unsigned int>(strlen(expected));

  char name[300];
  memset(name, 'Z', sizeof name);
  unsigned int size = length;
  EXPECT_EQ(info.GetHostName(name, size), DEVICEINFO_ERR_MORE_DATA);
  EXPECT_EQ(size, length + 1);
  EXPECT_EQ(name[0], 'Z');
  size = length + 1;
  EXPECT_EQ(info.GetHostName(name, size), 0);
  EXPECT_STREQ(name, expected);
  EXPECT_EQ(size, length + 1);
  EXPECT_EQ(info.GetHostName(nullptr, size), DEVICEINFO_ERR_NULL_BUFFER);

  char udid[41];
  char* buffer = udid;
  size = sizeof udid;
  const long rc = info.GetUDID(buffer, size);
  if (rc == 0) {
    ASSERT_EQ(strlen(udid), 40u);
    for (char c : std::string(udid)) EXPECT_TRUE(isdigit(c) || (c >= 'a' && c <= 'f')) << udid;
  } else {
    EXPECT_EQ(rc, DEVICEINFO_ERR_FAILED);
  }

  char vendor[256];
  size = sizeof vendor;
  const long vendorRc = info.GetManufacturerName(vendor, size);
  EXPECT_TRUE(vendorRc == 0 || vendorRc == DEVICEINFO_ERR_NO_VENDOR) << vendorRc;
}
