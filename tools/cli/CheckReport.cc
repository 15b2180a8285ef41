#include "CheckReport.h"

#include <json-glib/json-glib.h>


namespace cli {

namespace {

const char *Name(CheckReport::Verdict verdict) {
  switch (verdict) {
    case CheckReport::Verdict::Pass: return "pass";
    case CheckReport::Verdict::Warn: return "warn";
    default: return "fail";
  }
}

}  // namespace

bool CheckReport::failed() const {
  for (const Item &item : items_)
    if (item.verdict == Verdict::Fail) return true;
  return false;
}

std::string CheckReport::text() const {
  std::string out = "talvo-cli check " + appId_ + "\n";
  std::string area;
  int counts[3] = {0, 0, 0};
  for (const Item &item : items_) {
    if (item.area != area) out += (area = item.area) + ":\n";
    out += std::string("  ") + Name(item.verdict) + "  " + item.what + "\n";
    if (!item.fix.empty()) out += "        fix: " + item.fix + "\n";
    ++counts[static_cast<int>(item.verdict)];
  }
  return out + std::to_string(counts[0]) + " passed, " + std::to_string(counts[1]) +
         " warnings, " + std::to_string(counts[2]) + " failed\n";
}

JsonNode *CheckReport::json() const {
  JsonBuilder *b = json_builder_new();
  json_builder_begin_object(b);
  json_builder_set_member_name(b, "app");
  json_builder_add_string_value(b, appId_.c_str());
  json_builder_set_member_name(b, "passed");
  json_builder_add_boolean_value(b, !failed());
  json_builder_set_member_name(b, "checks");
  json_builder_begin_array(b);
  for (const Item &item : items_) {
    json_builder_begin_object(b);
    for (const auto &member : {std::make_pair("area", item.area),
                               std::make_pair("result", std::string(Name(item.verdict))),
                               std::make_pair("what", item.what), std::make_pair("fix", item.fix)}) {
      if (member.second.empty()) continue;
      json_builder_set_member_name(b, member.first);
      json_builder_add_string_value(b, member.second.c_str());
    }
    json_builder_end_object(b);
  }
  json_builder_end_array(b);
  json_builder_end_object(b);

  JsonNode *root = json_builder_get_root(b);
  g_object_unref(b);
  return root;
}

}  // namespace cli
