// setUp() and readSetup() of sandbox.h: the files of a folder that is served, and the entries of
// its agent configuration.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "common/owned.h"
#include "platform/ini.h"
#include "sandbox/accounts.h"
#include "sandbox/sandbox.h"
#include "sandbox/setup/certificates.h"
#include "sandbox/setup/files.h"
#include "sandbox/setup/url.h"

namespace sandbox {
namespace {

namespace fs = std::filesystem;

constexpr char kConfiguration[] = "agent.cfg";
constexpr char kAccounts[] = "accounts.json";
constexpr char kDatabase[] = "pool.db";
constexpr char kServerKeys[] = "tls/server";
constexpr char kClientKeys[] = "tls/client";
constexpr char kRoutes[] = "routes";

enum class Value { kText, kUrl, kFolder, kKeys };

/// An entry by the offsets of its names, by which the library reads it.
struct ConfigurationRow {
    InifileSection section;
    InifileEntry entry;
    Value kind;
    const char* value;  ///< a folder is below the setup's
    const char* comment;

    const char* sectionName() const { return _qlx_config_section_string_table_ + section; }
    const char* entryName() const { return _qlx_config_entry_string_table_ + entry; }
};

// Rows of a section stand together.
constexpr ConfigurationRow kConfigurationRows[] = {
    {INI_SECTION_PRODUCT, INI_ENTRY_VENDOR, Value::kText, "Norvale", "Who provides the pool."},
    {INI_SECTION_PRODUCT, INI_ENTRY_LABEL, Value::kText, "kspool sandbox", "A name for people."},
    {INI_SECTION_SPA, INI_ENTRY_URL, Value::kUrl, nullptr,
     "The SPA server. The sandbox is both servers."},
    {INI_SECTION_METABASE, INI_ENTRY_URL, Value::kUrl, nullptr,
     "The Metabase. kspool-sandbox serve takes port and path from here."},
    {INI_SECTION_POOL, INI_ENTRY_POOL_ID, Value::kText, "1", "The number of the pool."},
    {INI_SECTION_POOL, INI_ENTRY_AGENT_ID, Value::kText, "1",
     "The number of this agent in the pool."},
    {INI_SECTION_POOL, INI_ENTRY_RECONNECT_TIMEOUT, Value::kText, "0",
     "Seconds to go on trying when a server does not answer; 0: not at all."},
    {INI_SECTION_FINGERPRINTS, INI_ENTRY_TYPE, Value::kText, "3",
     "Type of fingerprints; 3 has 32 bytes."},
    {INI_SECTION_PATHS, INI_ENTRY_ROUTE_TABLES, Value::kFolder, kRoutes,
     "Folder for route tables."},
    {INI_SECTION_PATHS, INI_ENTRY_SSL_KEY, Value::kKeys, kClientKeys,
     "Folder with ca.pem, cert.pem and key.pem, opened for an https server alone."},
};
constexpr const ConfigurationRow& kUrlRow = kConfigurationRows[3];

[[noreturn]] void fail(const std::string& text) {
    throw std::runtime_error(text);
}

std::string configurationText(const std::string& url, const std::string& folder) {
    std::string text = "# Configuration of an agent of the sandbox in this folder.\n";
    std::string section;
    for (const ConfigurationRow& row : kConfigurationRows) {
        if (section != row.sectionName()) {
            section = row.sectionName();
            text.append("\n[").append(section).append("]\n");
        }
        const std::string value = row.kind == Value::kUrl    ? url
                                  : row.kind == Value::kText ? row.value
                                                             : folder + "/" + row.value;
        text.append("# ").append(row.comment).append("\n");
        text.append(row.entryName()).append(" = ").append(value).append("\n");
    }
    return text;
}

/// The value of an entry. Throws when the entry is missing.
std::string configurationValue(const std::string& file, const ConfigurationRow& wanted) {
    if (access(file.c_str(), R_OK) != 0) fail(file + ": " + strerror(errno));
    char value[1024];
    const int length = InifileGetValueA(wanted.sectionName(), wanted.entryName(), value,
                                        sizeof value - 1, nullptr, file.c_str());
    if (length > 0) return value;
    fail(file + ": no " + wanted.entryName() + " in section " + wanted.sectionName());
}

void writeKeys(const std::string& folder, const std::string& authority, const KeyPair& pair) {
    fs::create_directories(folder);
    writeFile(folder + "/ca.pem", authority);
    writeFile(folder + "/cert.pem", pair.certificate);
    writeFile(folder + "/key.pem", pair.key);
}

/// A temporary folder beside the wanted one, so that rename() can put it in place atomically: the
/// wanted folder is complete or missing even if the program is killed, and after a power loss if
/// the folder was synced before. Removed by the destructor unless it was renamed.
class NewFolder {
  public:
    explicit NewFolder(const std::string& wanted) : path_(wanted + ".XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr) {
            const std::string reason = strerror(errno);
            path_.clear();
            fail(wanted + ": " + reason);
        }
    }
    NewFolder(const NewFolder&) = delete;
    NewFolder& operator=(const NewFolder&) = delete;
    ~NewFolder() {
        std::error_code ignored;
        if (!path_.empty()) fs::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }
    void sync() const {
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path_))
            sandbox::sync(entry.path());
        sandbox::sync(path_);
    }
    /// rename() also replaces an empty target folder.
    void rename(const std::string& wanted) {
        if (::rename(path_.c_str(), wanted.c_str()) != 0) fail(wanted + ": " + strerror(errno));
        path_.clear();
    }

  private:
    std::string path_;
};

/// The absolute path, because the configuration names files of the folder and is read from
/// elsewhere. Refuses control characters: a line end would end a line of the configuration.
std::string absoluteFolder(const std::string& folder) {
    if (folder.empty()) fail("an empty path names no folder");
    std::string path = fs::weakly_canonical(fs::absolute(folder)).string();
    while (path.size() > 1 && path.ends_with('/'))
        path.pop_back();
    for (const char c : path) {
        if (static_cast<unsigned char>(c) < 0x20)
            fail("a folder whose name has control characters cannot be configured");
    }
    return path;
}

void checkEmpty(const std::string& folder) {
    if (!fs::exists(fs::symlink_status(folder))) return;
    if (!fs::is_directory(folder)) fail(folder + ": exists and is no folder");
    if (!fs::is_empty(folder)) fail(folder + ": exists and is not empty");
}

void fillFolder(const NewFolder& made, const std::string& folder, const Setup& setup,
                const Url& url) {
    const std::string& path = made.path();
    const std::vector<Account> accounts = {
        {"agent", randomPassword(), {"read", "write", "delete"}},
        {"reader", randomPassword(), {"read"}},
    };
    for (const Account& account : accounts)
        writeFile(path + "/" + account.login + ".password", account.password + "\n");
    writeFile(path + "/" + kAccounts, accountsText(accounts));
    writeFile(path + "/" + kConfiguration, configurationText(url.text, folder));
    fs::create_directory(path + "/" + kRoutes);
    if (!setup.tls) return;
    const CertificateSet set = makeCertificates(url.host);
    writeKeys(path + "/" + kServerKeys, set.authority, set.server);
    writeKeys(path + "/" + kClientKeys, set.authority, set.client);
}

}  // namespace

std::string setUp(const Setup& setup) {
    const Url url = parseUrl(setup.url);
    if (url.tls != setup.tls)
        fail(setup.tls ? "TLS needs an https:// URL" : "an https:// URL needs TLS");
    const std::string folder = absoluteFolder(setup.folder);
    checkEmpty(folder);
    NewFolder made(folder);
    fillFolder(made, folder, setup, url);
    if (setup.sync) made.sync();
    made.rename(folder);
    if (setup.sync) sync(fs::path(folder).parent_path());
    return url.text;
}

void changeUrl(const std::string& folder, const std::string& url) {
    const std::string path = absoluteFolder(folder);
    replaceFile(path + "/" + kConfiguration, configurationText(url, path), 0600);
}

Settings readSetup(const std::string& folder) {
    const std::string path = absoluteFolder(folder);
    const Url url = parseUrl(configurationValue(path + "/" + kConfiguration, kUrlRow));
    Settings settings;
    settings.port = url.port;
    settings.host = url.host;
    settings.prefix = url.prefix;
    settings.database = path + "/" + kDatabase;
    settings.accountsFile = path + "/" + kAccounts;
    if (url.tls) settings.tlsFolder = path + "/" + kServerKeys;
    return settings;
}

}  // namespace sandbox
