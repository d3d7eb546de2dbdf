// Lists and dictionaries in memory: key order, ownership of children, keyed access, equality.
#include <climits>
#include <mutex>
#include <thread>
#include <vector>

#include "BencodeTestUtil.h"

using namespace std::string_literals;

namespace {

// A child list that counts its own deletions, to see who frees what.
int g_deaths = 0;
struct CountedList : CBencodeList {
  CountedList() : CBencodeList(true) {}
  ~CountedList() override { ++g_deaths; }
};

}  // namespace

TEST(BencodeList, OwnsItsItemsUntilErased) {
  g_deaths = 0;
  {
    CBencodeList list(false);
    CBencodeList *fresh = nullptr, *counted[3] = {new CountedList, new CountedList, new CountedList};
    CBencodeDictionary* dict = nullptr;
    EXPECT_TRUE(list.Append(5L) && list.Append("a\0b"s) && list.Append(fresh));
    for (CBencodeList*& child : counted) list.Append(child);
    list.Append(dict);
    ASSERT_TRUE(fresh != nullptr && dict != nullptr);
    EXPECT_TRUE(list[2] == fresh && list[5] == counted[2]);
    EXPECT_EQ(Bencoded(list), "li5e1:a" "lelelele" "de" "e");

    EXPECT_TRUE(list.Remove(3) && g_deaths == 1);
    CBencode* taken = list[3];
    EXPECT_TRUE(list.Erase(3) && list[3] == counted[2]);
    EXPECT_EQ(Bencoded(*taken), "le");  // still alive, now the caller's
    delete taken;
    EXPECT_EQ(g_deaths, 2);

    LogCapture log;
    EXPECT_FALSE(list[list.Items().size()] || list.Remove(99) || list.Erase(99));
    EXPECT_EQ(list.Items().size(), 5u);
    EXPECT_EQ(log.Count("Out-of-bound bencode list item access"), 3u);
    ExpectLogged(log, "Out-of-bound bencode list item access");
  }
  EXPECT_EQ(g_deaths, 3);
}

TEST(BencodeDictionary, KeyedAccessReplacesAndCreates) {
  g_deaths = 0;
  CBencodeDictionary dict(false);
  LogCapture log;
  long number = 0;
  dict.Insert("max", LONG_MAX);
  EXPECT_TRUE(dict.Add("n", 5) && dict.Add("n", 5) && dict.Get("n", number) && !dict.Add("max", 1));
  EXPECT_EQ(number, 10);

  CBencodeList* const poison = reinterpret_cast<CBencodeList*>(0x1);
  CBencodeList *list = poison, *again = nullptr;
  EXPECT_TRUE(!dict.Get("l", list, false) && list == poison);
  EXPECT_TRUE(dict.Get("l", list, true) && dict.Get("l", again, false) && again == list);
  EXPECT_TRUE(!dict.Get("n", list, true) && list == nullptr);
  ExpectLogged(log, "Dictionary item is not a list");
  CBencodeDictionary* sub = nullptr;
  EXPECT_TRUE(!dict.Get("n", sub, true) && dict.Get("d", sub, true));
  ExpectLogged(log, "Dictionary item is not a dictionary");
  EXPECT_EQ(Bencoded(dict), "d1:dde1:lle3:maxi9223372036854775807e1:ni10ee");

  dict.Insert("c", new CountedList);
  EXPECT_TRUE(dict.Insert("c", "s\0t"s));
  EXPECT_EQ(g_deaths, 1);
  std::string text = "poison";
  EXPECT_FALSE(dict.Get("n", text) || dict.Get("absent", text) || dict.Add("c", 1));
  EXPECT_EQ(text, "poison");
  EXPECT_TRUE(dict.Get("c", text) && text == "s") << text;

  CBencode::EContentType type = CBencode::eInteger;
  EXPECT_TRUE(dict.GetContentType("l", type) && type == CBencode::eList && !dict.GetContentType("absent", type));
  EXPECT_TRUE(dict.Remove("l") && !dict.Remove("l"));
  dict.Insert("null", static_cast<CBencode*>(nullptr));
  EXPECT_TRUE(!dict.Get("null", number) && Bencoded(dict) == "<failed>");
  ExpectLogged(log, "Dictionary item is NULL");

  // A child that does not write fails its parents, each with its own line.
  CBencodeList outer(false);
  CBencodeDictionary* inner = nullptr;
  outer.Append(inner);
  inner->Insert("k", new CBencode(CBencode::eList));  // the list's tag, but a plain value
  log.Clear();
  EXPECT_EQ(Bencoded(outer), "<failed>");
  ExpectOnlyLogged(log, {"Failed to externalize value", "Failed to externalize list item"});
}

TEST(BencodeValues, EqualityComparesValuesInOrder) {
  struct Row {
    char const *left, *right;
    bool equal;
  } const rows[] = {
      {"le", "le", true},           {"li1e1:ae", "li1e1:ae", true}, {"li1ee", "li2ee", false},
      {"li1ee", "li1ei1ee", false}, {"li1ee", "l1:1e", false},      {"le", "de", false},
      {"de", "de", true},           {"d1:ai1ee", "d1:bi1ee", true},  // keys deliberately not compared
      {"d1:ai1ee", "d1:ai2ee", false}, {"d1:ai1ee", "d1:ai1e1:bi1ee", false}, {"ld1:xleee", "ld1:yleee", true},
      {"i5e", "i5e", true},         {"i5e", "1:5", false},          {"2:ab", "3:abc", false},
  };
  for (Row const& row : rows) {
    std::unique_ptr<CBencode> left = Parsed(row.left), right = Parsed(row.right);
    EXPECT_EQ(*left == *right, row.equal) << row.left << " vs " << row.right;
    EXPECT_EQ(*right == *left, row.equal) << row.right << " vs " << row.left;
  }
  EXPECT_FALSE(CBencodeList(false) == CBencode(CBencode::eList));  // the right tag but not a list object
}

// A tree may be built on one thread and dropped on another, while the first keeps building: memory freed on
// the consumer side must never disturb what the producer is still building (run under the thread sanitizer too).
TEST(BencodeContainers, TreesMoveBetweenThreads) {
  std::string const text = "ld1:ai1e1:bli2e3:xyzeei3ee";
  std::mutex mutex;
  std::vector<std::unique_ptr<CBencode>> handed;
  std::thread producer([&] {
    for (int i = 0; i < 2000; ++i) {
      std::unique_ptr<CBencode> built = Parsed(text);
      std::lock_guard<std::mutex> lock(mutex);
      handed.push_back(std::move(built));
    }
  });
  for (size_t dropped = 0; dropped < 2000;) {
    std::unique_lock<std::mutex> lock(mutex);
    std::vector<std::unique_ptr<CBencode>> batch = std::move(handed);
    handed.clear();
    lock.unlock();
    for (std::unique_ptr<CBencode>& each : batch) EXPECT_EQ(Bencoded(*each), text);
    dropped += batch.size();
  }
  producer.join();
}
