// Lists and dictionaries in memory: parsing, canonical output, ownership of children, keyed access, equality.
#include <climits>
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

struct ParseRow {
  std::string input;
  bool ok;
  char const* after;  // the container written back after the parse
  std::vector<char const*> messages;
};

// Each row parses into a container that already holds `previous`.
template <typename Container>
void RunParseRows(std::vector<ParseRow> const& rows, char const* previous) {
  for (ParseRow const& row : rows) {
    SCOPED_TRACE("input \"" + row.input + "\"");
    Container container(false);
    ASSERT_TRUE(container.Internalize(*StreamOver(previous)));
    LogCapture log;
    EXPECT_EQ(container.Internalize(*StreamOver(row.input)), row.ok);
    EXPECT_EQ(Serialised(container), row.after);
    EXPECT_EQ(log.Records().size(), row.messages.size()) << log.Dump();
    for (char const* message : row.messages) ExpectLogged(log, message, CBencode::eBencodeIllegalData);
  }
}

char const* const kReadInt = "Failed to read integer value";
char const* const kIllegal = "Illegal bencode string";
char const* const kKey = "Failed to internalize key string";

}  // namespace

TEST(BencodeList, ParsesItsGrammar) {
  RunParseRows<CBencodeList>(
      {{"le", true, "le", {}},
       {"", true, "li9ee", {}},
       {"li1e3:abcli2eedee", true, "li1e3:abcli2eedee", {}},
       {"li1e", false, "li1ee", {"Failed to internalize list item identifier"}},
       {"d", false, "li9ee", {"Failed to internalize list type identifier"}},
       {"lxe", false, "le", {kReadInt, kIllegal, "Failed to internalize list item of type string"}},
       {"li1eie", false, "li1ee",
        {kReadInt, "Failed to internalize integer value", "Failed to internalize list item of type integer"}},
       {"lli1e", false, "le",
        {"Failed to internalize list item identifier", "Failed to internalize list item of type list"}},
       {"ld1:a", false, "le",
        {"Failed to internalize value type identifier", "Failed to internalize list item of type dictionary"}}},
      "li9ee");
}

TEST(BencodeDictionary, ParsesItsGrammar) {
  RunParseRows<CBencodeDictionary>(
      {{"de", true, "de", {}},
       {"", true, "d1:zi9ee", {}},
       {"d1:bi2e1:ai1ee", true, "d1:ai1e1:bi2ee", {}},
       {"d1:ai1e1:ai2ee", true, "d1:ai1ee", {kKey}},
       {"di1ei2ee", false, "de", {kReadInt, kIllegal, kKey}},
       {"d1:ai1e", false, "d1:ai1ee", {kReadInt, kIllegal, kKey}},
       {"l", false, "d1:zi9ee", {"Failed to internalize dictionary type identifier"}},
       {"d1:aie", false, "de", {kReadInt, "Failed to internalize integer value",
                                "Failed to internalize value of type integer"}},
       {"d1:a3:xy", false, "de", {kIllegal, "Failed to internalize value of type string"}},
       {"d1:al", false, "de", {"Failed to internalize list item identifier", "Failed to internalize value of type list"}},
       {"d1:adx", false, "de", {kReadInt, kIllegal, kKey, "Failed to internalize value of type dictionary"}}},
      "d1:zi9ee");
}

TEST(BencodeDictionary, RepeatedKeyStopsItsDictionaryOnlyAndKeysSortAsUnsignedBytes) {
  std::unique_ptr<CBencodeStream> stream = StreamOver("d1:ai1e1:ai2ee");
  CBencodeDictionary dict(false);
  EXPECT_TRUE(dict.Internalize(*stream));
  EXPECT_EQ(stream->Tellg(), 10);  // at "i2ee"
  // Nested, the unread value goes to the parent: here the list reads it as its next item.
  CBencodeList list(false);
  EXPECT_TRUE(list.Internalize(*StreamOver("ld1:ai1e1:ai2eei3ee")));
  EXPECT_EQ(Serialised(list), "ld1:ai1eei2ee");

  for (std::string key : {"ab"s, "\xff"s, "a"s, ""s, "B"s}) dict.Insert(key, 1L);
  EXPECT_EQ(Serialised(dict), "d0:i1e1:Bi1e1:ai1e2:abi1e1:\xffi1ee");
}

TEST(BencodeList, OwnsItsItemsUntilErased) {
  g_deaths = 0;
  {
    CBencodeList list(false);
    list.Append(5L);
    list.Append("a\0b"s);
    CBencodeList* fresh = nullptr;
    CBencodeDictionary* dict = nullptr;
    CBencodeList* counted[3] = {new CountedList, new CountedList, new CountedList};
    EXPECT_TRUE(list.Append(fresh));
    for (CBencodeList*& child : counted) list.Append(child);
    list.Append(dict);
    ASSERT_TRUE(fresh != nullptr && dict != nullptr);
    EXPECT_EQ(list[2], fresh);
    EXPECT_EQ(list[5], counted[2]);
    EXPECT_EQ(Serialised(list), "li5e1:a" "lelelele" "de" "e");

    EXPECT_TRUE(list.Remove(3));
    EXPECT_EQ(g_deaths, 1);
    CBencode* taken = list[3];
    EXPECT_TRUE(list.Erase(3));
    EXPECT_EQ(list[3], counted[2]);
    EXPECT_EQ(Serialised(*taken), "le");  // still alive, now the caller's
    delete taken;
    EXPECT_EQ(g_deaths, 2);

    LogCapture log;
    EXPECT_EQ(list[list.Items().size()], nullptr);
    EXPECT_FALSE(list.Remove(99) || list.Erase(99));
    EXPECT_EQ(list.Items().size(), 5u);
    EXPECT_EQ(log.Count("Out-of-bound bencode list item access"), 3u);
    ExpectLogged(log, "Out-of-bound bencode list item access", -1);
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
  EXPECT_FALSE(dict.Get("l", list, false));
  EXPECT_EQ(list, poison);
  EXPECT_TRUE(dict.Get("l", list, true) && dict.Get("l", again, false));
  EXPECT_EQ(again, list);
  EXPECT_FALSE(dict.Get("n", list, true));
  EXPECT_EQ(list, nullptr);
  ExpectLogged(log, "Dictionary item is not a list", -1);
  CBencodeDictionary* sub = nullptr;
  EXPECT_FALSE(dict.Get("n", sub, true));
  ExpectLogged(log, "Dictionary item is not a dictionary", -1);
  EXPECT_TRUE(dict.Get("d", sub, true));
  EXPECT_EQ(Serialised(dict), "d1:dde1:lle3:maxi9223372036854775807e1:ni10ee");

  dict.Insert("c", new CountedList);
  EXPECT_TRUE(dict.Insert("c", "s\0t"s));
  EXPECT_EQ(g_deaths, 1);
  std::string text = "poison";
  EXPECT_FALSE(dict.Get("n", text) || dict.Get("absent", text) || dict.Add("c", 1));
  EXPECT_EQ(text, "poison");
  EXPECT_TRUE(dict.Get("c", text));
  EXPECT_EQ(text, "s");

  CBencode::EContentType type = CBencode::eInteger;
  EXPECT_TRUE(dict.GetContentType("l", type));
  EXPECT_EQ(type, CBencode::eList);
  EXPECT_FALSE(dict.GetContentType("absent", type));
  EXPECT_TRUE(dict.Remove("l"));
  EXPECT_FALSE(dict.Remove("l"));
  dict.Insert("null", static_cast<CBencode*>(nullptr));
  EXPECT_FALSE(dict.Get("null", number));
  EXPECT_EQ(Serialised(dict), "<failed>");
  ExpectLogged(log, "Dictionary item is NULL", -1);
}

TEST(BencodeContainers, EqualityComparesValuesInOrder) {
  struct Row {
    char const *left, *right;
    bool equal;
  } const rows[] = {
      {"le", "le", true},           {"li1e1:ae", "li1e1:ae", true}, {"li1ee", "li2ee", false},
      {"li1ee", "li1ei1ee", false}, {"li1ee", "l1:1e", false},      {"le", "de", false},
      {"de", "de", true},           {"d1:ai1ee", "d1:bi1ee", true},  // keys deliberately not compared
      {"d1:ai1ee", "d1:ai2ee", false}, {"d1:ai1ee", "d1:ai1e1:bi1ee", false}, {"ld1:xleee", "ld1:yleee", true},
  };
  auto parse = [](char const* text) {
    std::unique_ptr<CBencode> value(text[0] == 'l' ? static_cast<CBencode*>(new CBencodeList(false))
                                                   : new CBencodeDictionary(false));
    EXPECT_TRUE(value->Internalize(*StreamOver(text))) << text;
    return value;
  };
  for (Row const& row : rows) {
    std::unique_ptr<CBencode> left = parse(row.left), right = parse(row.right);
    EXPECT_EQ(*left == *right, row.equal) << row.left << " vs " << row.right;
    EXPECT_EQ(*right == *left, row.equal) << row.right << " vs " << row.left;
  }
  EXPECT_FALSE(CBencodeList(false) == CBencode(CBencode::eList));  // the right tag but not a list object
}

// A tree may be built on one thread and dropped on another; the memory of its nodes crosses with it.
TEST(BencodeContainers, TreesMoveBetweenThreads) {
  std::unique_ptr<CBencodeList> tree;
  std::thread([&tree] {
    tree.reset(new CBencodeList(false));
    EXPECT_TRUE(tree->Internalize(*StreamOver("ld1:ai1e1:bli2e3:xyzeei3ee")));
  }).join();
  std::thread([&tree] { tree.reset(); }).join();
  CBencodeList again(false);
  EXPECT_TRUE(again.Internalize(*StreamOver("ld1:ai1e1:bli2e3:xyzeei3ee")));
  EXPECT_EQ(Serialised(again), "ld1:ai1e1:bli2e3:xyzeei3ee");
}
