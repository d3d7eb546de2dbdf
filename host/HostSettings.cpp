// Reading and checking the host settings file, and handing its entries to the service's settings adapter.
#include "HostSettings.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>

#include "AppLog.h"
#include "IBencodeSettings.h"

namespace {

using nlohmann::json;

constexpr const char* kUnit = "HostSettings";

// The settings keys under which the service looks up each module's feedback data file.
const std::set<std::string> kDataFileKeys = {
    "AccessPhoneHomeFile", "WebFilterPhoneHomeFile", "TunnelPhoneHomeFile", "ResolverPhoneHomeFile",
    "FlowPhoneHomeFile",   "PosturePhoneHomeFile",   "BasePosture",         "ElevatedPosture",
};
// The module names under which the service looks up crash-dump patterns.
const std::set<std::string> kCrashDumpModules = {
    "TunnelModule", "AccessModule",  "WebFilterModule", "FlowModule",         "ResolverModule",
    "UiModule",     "UpdaterModule", "PostureModule",   "PostureAgentModule",
};

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

std::string Joined(const std::set<std::string>& names) {
  std::string out;
  for (const std::string& name : names) out += (out.empty() ? "" : ", ") + name;
  return out;
}

// A bencode string carries no NUL and the adapter takes C strings, so a NUL would silently cut the text.
bool CheckText(const std::string& where, const std::string& text, std::string& problem) {
  if (text.find('\0') != std::string::npos) {
    problem = where + ": contains a NUL character";
    return false;
  }
  return true;
}

bool CheckKey(const std::string& where, const std::string& key, std::string& problem) {
  if (key.empty() || key.size() > CHostSettings::kMaxKeySize) {
    problem = where + ": a key must be 1 to " + std::to_string(CHostSettings::kMaxKeySize) + " bytes long";
    return false;
  }
  return CheckText(where, key, problem);
}

// Relative paths would be resolved against the service's working directory, which under systemd is "/".
bool CheckAbsolute(const std::string& where, const json& value, std::string& out, std::string& problem) {
  if (!value.is_string()) {
    problem = where + ": must be a string";
    return false;
  }
  out = value.get<std::string>();
  if (!CheckText(where, out, problem)) return false;
  if (out.empty() || out[0] != '/') {
    problem = where + ": " + Quoted(out) + " is not an absolute path";
    return false;
  }
  return true;
}

bool ReadModules(const json& section, std::vector<HostSetting>& entries, std::string& problem) {
  for (const auto& [key, value] : section.items()) {
    const std::string where = "\"modules\"." + Quoted(key);
    if (kDataFileKeys.count(key) == 0) {
      problem = where + ": not a data-file key; the keys are " + Joined(kDataFileKeys);
      return false;
    }
    HostSetting entry;
    entry.key = key;
    if (!CheckAbsolute(where, value, entry.text, problem)) return false;
    entries.push_back(std::move(entry));
  }
  return true;
}

bool ReadCrashDumps(const json& section, std::vector<HostSetting>& entries, std::string& problem) {
  for (const auto& [key, value] : section.items()) {
    const std::string where = "\"crash_dumps\"." + Quoted(key);
    if (kCrashDumpModules.count(key) == 0) {
      problem = where + ": not a module name; the names are " + Joined(kCrashDumpModules);
      return false;
    }
    HostSetting entry;
    entry.key = key;
    entry.kind = HostSetting::eList;
    const json patterns = value.is_array() ? value : json::array({value});
    if (patterns.empty()) {
      problem = where + ": names no pattern";
      return false;
    }
    for (const json& pattern : patterns) {
      std::string text;
      if (!CheckAbsolute(where, pattern, text, problem)) return false;
      entry.list.push_back(std::move(text));
    }
    entries.push_back(std::move(entry));
  }
  return true;
}

bool ReadFreeSettings(const json& section, const std::set<std::string>& taken, std::vector<HostSetting>& entries,
                      std::string& problem) {
  for (const auto& [key, value] : section.items()) {
    const std::string where = "\"settings\"." + Quoted(key);
    if (!CheckKey(where, key, problem)) return false;
    if (taken.count(key) != 0) {
      problem = where + ": the key is already given in \"modules\" or \"crash_dumps\"";
      return false;
    }
    HostSetting entry;
    entry.key = key;
    if (value.is_number_integer()) {
      if (value.is_number_unsigned() && value.get<unsigned long long>() > static_cast<unsigned long long>(LONG_MAX)) {
        problem = where + ": the integer is out of the 64-bit signed range";
        return false;
      }
      entry.kind = HostSetting::eInteger;
      entry.integer = value.get<long>();
    } else if (value.is_string()) {
      entry.text = value.get<std::string>();
      if (!CheckText(where, entry.text, problem)) return false;
    } else if (value.is_array() && std::all_of(value.begin(), value.end(), [](const json& e) { return e.is_string(); })) {
      entry.kind = HostSetting::eList;
      for (const json& element : value) {
        entry.list.push_back(element.get<std::string>());
        if (!CheckText(where, entry.list.back(), problem)) return false;
      }
    } else {
      problem = where + ": a value must be an integer, a string or an array of strings";
      return false;
    }
    entries.push_back(std::move(entry));
  }
  return true;
}

// nlohmann keeps the last of two equal keys without a word; in a settings file that is a mistake to report.
json ParseRejectingDuplicates(const std::string& text, std::string& duplicate) {
  std::vector<std::set<std::string>> open;
  json::parser_callback_t watch = [&](int, json::parse_event_t event, json& parsed) {
    if (event == json::parse_event_t::object_start) {
      open.emplace_back();
    } else if (event == json::parse_event_t::object_end && !open.empty()) {
      open.pop_back();
    } else if (event == json::parse_event_t::key && !open.empty() && !open.back().insert(parsed.get<std::string>()).second &&
               duplicate.empty()) {
      duplicate = parsed.get<std::string>();
    }
    return true;
  };
  return json::parse(text, watch);
}

}  // namespace

bool CHostSettings::Load(const std::string& path, std::string& problem) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    problem = std::string("cannot be read: ") + strerror(errno);
    return false;
  }
  std::string text;
  char chunk[65536];
  while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
    text.append(chunk, static_cast<size_t>(in.gcount()));
    if (text.size() > kMaxFileSize) {
      problem = "larger than " + std::to_string(kMaxFileSize) + " bytes";
      return false;
    }
  }
  if (in.bad()) {
    problem = std::string("cannot be read: ") + strerror(errno);
    return false;
  }

  json root;
  std::string duplicate;
  try {
    root = ParseRejectingDuplicates(text, duplicate);
  } catch (const json::exception& e) {
    // "[json.exception.parse_error.101] parse error at line 2, column 3: ..." without the bracketed id
    const std::string what = e.what();
    const size_t idEnd = what.find("] ");
    problem = "not valid JSON: " + (idEnd == std::string::npos ? what : what.substr(idEnd + 2));
    return false;
  }
  if (!duplicate.empty()) {
    problem = "the key " + Quoted(duplicate) + " is given twice in one object";
    return false;
  }
  if (!root.is_object()) {
    problem = "the top level must be a JSON object";
    return false;
  }

  std::vector<HostSetting> entries;
  std::set<std::string> taken;
  for (const char* name : {"modules", "crash_dumps", "settings"}) {
    const auto section = root.find(name);
    if (section == root.end()) continue;
    if (!section->is_object()) {
      problem = Quoted(name) + ": must be a JSON object";
      return false;
    }
    const std::string which = name;
    const bool ok = which == "modules"       ? ReadModules(*section, entries, problem)
                    : which == "crash_dumps" ? ReadCrashDumps(*section, entries, problem)
                                             : ReadFreeSettings(*section, taken, entries, problem);
    if (!ok) return false;
    for (const HostSetting& entry : entries) taken.insert(entry.key);
  }
  for (const auto& [name, value] : root.items()) {
    if (name != "modules" && name != "crash_dumps" && name != "settings") {
      problem = Quoted(name) + ": not a section; the sections are \"modules\", \"crash_dumps\" and \"settings\"";
      return false;
    }
  }
  m_entries = std::move(entries);
  return true;
}

size_t CHostSettings::InsertInto(IBencodeSettings& target) const {
  size_t refused = 0;
  for (const HostSetting& entry : m_entries) {
    bool ok = true;
    switch (entry.kind) {
      case HostSetting::eInteger:
        ok = target.Insert(entry.key.c_str(), entry.integer);
        break;
      case HostSetting::eString:
        ok = target.Insert(entry.key.c_str(), entry.text.c_str(), false);
        break;
      case HostSetting::eList:
        for (const std::string& element : entry.list) {
          ok = target.Insert(entry.key.c_str(), element.c_str(), true) && ok;
        }
        break;
    }
    if (!ok) {
      ++refused;
      CAppLog::LogDebugMessage(__FUNCTION__, kUnit, __LINE__, APPLOG_ERROR, "The service refused the setting \"%s\"",
                               entry.key.c_str());
    }
  }
  return refused;
}
