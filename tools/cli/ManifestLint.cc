#include "ManifestLint.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "AppExplainer.h"

namespace cli {

namespace {

const char kPrefix[] = "http://velna.org/velna/metadata/talvo/";
const char *const kMetadataPaths[] = {"companion-app/version", "companion-app/capsule-id",
                                      "companion-app/action-id", "sdk/version"};
const char *const kApplicationKeys[] = {"Package", "InfoPackage", "Exec", "AllowedClients"};
const char kJsonFailure[] = "\"Json failure because of missing parameter\"";

using KeyFilePtr = std::unique_ptr<GKeyFile, decltype(&g_key_file_free)>;

std::string Trim(const std::string &s) {
  size_t start = s.find_first_not_of(" \t\r");
  size_t end = s.find_last_not_of(" \t\r");
  return start == std::string::npos ? "" : s.substr(start, end - start + 1);
}

std::string Value(GKeyFile *kf, const char *group, const char *key) {
  gchar *value = g_key_file_get_value(kf, group, key, nullptr);
  std::string out = value ? value : "";
  g_free(value);
  return out;
}

// The known name closest to name, when it is a near miss (not equal, a few edits away).
std::string NearMiss(const std::string &name, const std::vector<std::string> &known,
                     size_t maxEdits) {
  std::string best;
  size_t bestDistance = maxEdits + 1;
  for (const std::string &candidate : known) {
    size_t d = EditDistance(name, candidate);
    if (d > 0 && d < bestDistance) {
      best = candidate;
      bestDistance = d;
    }
  }
  return best;
}

bool Runnable(const std::string &program) {
  if (program.find('/') != std::string::npos) return access(program.c_str(), X_OK) == 0;
  gchar *found = g_find_program_in_path(program.c_str());
  g_free(found);
  return found != nullptr;
}

}  // namespace

size_t EditDistance(const std::string &a, const std::string &b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// GLib's own messages name no line; this scan finds the first line that is none of
// blank, comment, [group] or key=value.
bool ManifestLint::checkSyntax(const std::string &text) {
  bool inGroup = false;
  size_t lineNo = 0, start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = Trim(text.substr(start, end - start));
    start = end + 1;
    ++lineNo;
    if (line.empty() || line[0] == '#') continue;
    std::string where = facts_.path + ":" + std::to_string(lineNo);
    std::string reason;
    if (line[0] == '[') {
      if (line.back() != ']' || line.size() < 3)
        reason = "a group header needs a name and a closing ']'";
      inGroup = true;
    } else if (line.find('=') == std::string::npos || Trim(line.substr(0, line.find('='))).empty()) {
      reason = "\"" + line + "\" is not a key=value line, a [group] header or a # comment";
    } else if (!inGroup) {
      reason = "a key before any [group] header";
    }
    if (!reason.empty()) {
      report_->fail("manifest does not parse: " + where + ": " + reason,
                    "fix line " + std::to_string(lineNo) + ": the library cannot read the app "
                    "at all (app_info_create fails with -5)");
      return false;
    }
  }
  return true;
}

void ManifestLint::checkApplication(void *keyFile) {
  auto *kf = static_cast<GKeyFile *>(keyFile);
  gsize n = 0;
  gchar **keys = g_key_file_get_keys(kf, "Application", &n, nullptr);
  std::vector<std::string> known(std::begin(kApplicationKeys), std::end(kApplicationKeys));
  for (gsize i = 0; keys && i < n; ++i) {
    std::string nearest = NearMiss(keys[i], known, 3);
    if (!nearest.empty() && std::find(known.begin(), known.end(), keys[i]) == known.end())
      report_->fail(std::string("[Application] key ") + keys[i] + " is not one the platform reads",
                    "did you mean " + nearest + "?");
  }
  g_strfreev(keys);

  facts_.package = Value(kf, "Application", "Package");
  facts_.infoPackage = Value(kf, "Application", "InfoPackage");
  if (facts_.infoPackage.empty()) facts_.infoPackage = facts_.package;
  facts_.exec = Value(kf, "Application", "Exec");
  gchar **clients = g_strsplit(Value(kf, "Application", "AllowedClients").c_str(), ";", -1);
  for (gchar **c = clients; *c; ++c)
    if (**c) facts_.allowedClients.push_back(Trim(*c));
  g_strfreev(clients);

  if (facts_.package.empty()) {
    report_->fail("[Application] has no Package", "add Package=<package id>; without it the "
                  "manifest cannot be read at all");
    return;
  }
  facts_.readable = true;
  report_->pass("Package " + facts_.package);

  gchar **argv = nullptr;
  if (facts_.exec.empty())
    report_->fail("no Exec: the library cannot launch the app", "add Exec=<command line>");
  else if (!g_shell_parse_argv(facts_.exec.c_str(), nullptr, &argv, nullptr))
    report_->fail("Exec \"" + facts_.exec + "\" is not a valid command line",
                  "quote the command line as a shell would");
  else if (!Runnable(argv[0]))
    report_->fail(std::string("Exec program ") + argv[0] + " is not runnable",
                  "install it, make it executable, or give its full path");
  else
    report_->pass(std::string("Exec ") + argv[0] + " is runnable");
  g_strfreev(argv);
}

void ManifestLint::checkMetadata(void *keyFile) {
  auto *kf = static_cast<GKeyFile *>(keyFile);
  std::vector<std::string> known;
  for (const char *path : kMetadataPaths) known.push_back(std::string(kPrefix) + path);

  gsize n = 0;
  gchar **groups = g_key_file_get_groups(kf, &n);
  for (gsize i = 0; i < n; ++i) {
    std::string nearest = NearMiss(groups[i], {"Application", "Metadata"}, 2);
    if (!nearest.empty())
      report_->fail(std::string("group [") + groups[i] + "] is not one the platform reads",
                    "did you mean [" + nearest + "]?");
  }
  g_strfreev(groups);

  gchar **keys = g_key_file_get_keys(kf, "Metadata", &n, nullptr);
  for (gsize i = 0; keys && i < n; ++i) {
    std::string key = keys[i];
    if (std::find(known.begin(), known.end(), key) != known.end()) continue;
    std::string nearest = NearMiss(key, known, 4);
    if (!nearest.empty() || key.find("talvo") != std::string::npos)
      report_->fail("metadata key " + key + " is not one the library reads (it is ignored)",
                    nearest.empty() ? "use one of " + std::string(kPrefix) + "{" +
                                          "companion-app/version, companion-app/capsule-id, "
                                          "companion-app/action-id, sdk/version}"
                                    : "did you mean " + nearest + "?");
  }
  g_strfreev(keys);

  facts_.version = Value(kf, "Metadata", known[0].c_str());
  facts_.capsuleId = Value(kf, "Metadata", known[1].c_str());
  facts_.hasSdkVersion = g_key_file_has_key(kf, "Metadata", known[3].c_str(), nullptr);
  facts_.sdkVersion = Value(kf, "Metadata", known[3].c_str());
  for (int i = 0; i < 2; ++i) {
    const std::string &value = i == 0 ? facts_.version : facts_.capsuleId;
    if (value.empty())
      report_->fail(std::string("no ") + kMetadataPaths[i] + ": every context answer reaches "
                    "the client as " + kJsonFailure,
                    "add " + known[i] + "=<value> to [Metadata]");
    else
      report_->pass(std::string(kMetadataPaths[i]) + " " + value);
  }
  if (g_key_file_has_key(kf, "Metadata", known[2].c_str(), nullptr))
    checkActionIds(Value(kf, "Metadata", known[2].c_str()));
  else
    report_->warn("no companion-app/action-id: the app declares no action, so "
                  "talvo_proxy_is_action_registered answers no for every action",
                  "add " + known[2] + "=<id>,<id>");
}

void ManifestLint::checkActionIds(const std::string &list) {
  gchar **elements = g_strsplit(list.c_str(), ",", -1);
  bool clean = true;
  for (gchar **e = elements; *e; ++e) {
    std::string id = *e;
    facts_.actionIds.push_back(id);
    if (id.empty()) {
      report_->fail("action-id list \"" + list + "\" has an empty element",
                    "remove the extra comma");
      clean = false;
    } else if (Trim(id) != id) {
      report_->fail("action-id \"" + id + "\" has blanks: the client's \"" + Trim(id) +
                        "\" does not match it",
                    "write the list with commas only: a,b,c");
      clean = false;
    }
  }
  g_strfreev(elements);
  if (clean) report_->pass("action ids " + list);
}

void ManifestLint::checkMechanism() {
  facts_.viaRpcPort =
      facts_.hasSdkVersion && facts_.sdkVersion.find("1.0-alpha") == std::string::npos;
  facts_.alias = facts_.package.compare(0, facts_.infoPackage.size(), facts_.infoPackage) != 0;
  if (facts_.viaRpcPort)
    report_->pass("mechanism rpc-port \"message\": sdk/version " + facts_.sdkVersion +
                  " does not contain 1.0-alpha");
  else
    report_->pass("mechanism message port TALVO_APP_SDK_PORT_516: " +
                  (facts_.hasSdkVersion ? "sdk/version " + facts_.sdkVersion + " contains 1.0-alpha"
                                        : std::string("no sdk/version")));

  bool allowed = facts_.allowedClients.empty() ||
                 std::find(facts_.allowedClients.begin(), facts_.allowedClients.end(),
                           clientId_) != facts_.allowedClients.end();
  if (!allowed && (facts_.viaRpcPort || facts_.alias))
    report_->fail("AllowedClients does not admit the checking client " + clientId_,
                  "add " + clientId_ + " to AllowedClients, or run the check as a client it "
                  "lists (VELNA_APP_ID=...)");
  else
    report_->pass(facts_.allowedClients.empty() ? "AllowedClients: every client"
                                                 : "AllowedClients admits " + clientId_);

  if (!facts_.alias) {
    report_->pass("not an alias app (Package begins with InfoPackage)");
    return;
  }
  report_->warn("alias app (Package " + facts_.package + " does not begin with InfoPackage " +
                facts_.infoPackage + "): actions go over rpc-port once its window has the "
                "focus (31 s at most), and the first action after a launch is dropped");
  if (!facts_.viaRpcPort)
    report_->fail("alias app whose sdk/version selects the message port: actions come over "
                  "rpc-port, contexts over the port",
                  "declare an sdk/version without 1.0-alpha (the SDK serves one mechanism)");
}

ManifestFacts ManifestLint::run() {
  facts_.path = InstalledAppsDir() + "/" + appId_ + ".app";
  gchar *text = nullptr;
  gsize length = 0;
  if (!g_file_get_contents(facts_.path.c_str(), &text, &length, nullptr)) {
    report_->fail("no manifest " + facts_.path, "install the app's manifest there (or set "
                  "VELNA_APPS_DIR)");
    return facts_;
  }
  std::string content(text, length);
  g_free(text);
  if (!checkSyntax(content)) return facts_;

  KeyFilePtr kf(g_key_file_new(), g_key_file_free);
  GError *error = nullptr;
  if (!g_key_file_load_from_data(kf.get(), content.data(), content.size(), G_KEY_FILE_NONE,
                                 &error)) {
    report_->fail("manifest does not parse: " + facts_.path + ": " + error->message,
                  "fix the key-file syntax; the library cannot read the app at all");
    g_error_free(error);
    return facts_;
  }
  report_->pass("manifest parses: " + facts_.path);
  checkApplication(kf.get());
  if (!facts_.readable) return facts_;
  checkMetadata(kf.get());
  checkMechanism();
  return facts_;
}

}  // namespace cli
