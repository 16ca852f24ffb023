// The name space: directories and files by their paths.
#ifndef SANDBOX_STORE_NAMES_H
#define SANDBOX_STORE_NAMES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sandbox/store/database.h"

namespace sandbox {

/// All but place() and clear() are actions of the wire protocol; they throw Event. Paths are taken
/// as they come from a client.
class NameSpace {
  public:
    explicit NameSpace(Database& database);

    void mkdir(const std::string& path, int64_t now);
    void copy(const std::string& source, const std::string& destination, bool recursive);
    void move(const std::string& source, const std::string& destination);
    void remove(const std::string& path, bool recursive);
    std::string list(const std::string& path, bool recursive);

    /// A file or directory that is just there, with its parents.
    void place(const std::string& path, char kind, int64_t size, int64_t mtime, int64_t now);
    void clear();

  private:
    struct Entry {
        char kind;  ///< 'd' or 'f'
        int64_t size;
        int64_t mtime;
    };
    std::optional<Entry> find(const std::string& path);
    Entry need(const std::string& path, const std::string& shown);
    [[noreturn]] void missing(const std::string& path, const std::string& shown);
    void needFree(const std::string& path, const std::string& shown);
    bool isEmpty(const std::string& path);
    std::string listChildren(const std::string& path);
    std::string listBelow(const std::string& path);
    void prepareTransfer(const std::string& source, const std::string& destination,
                         const char* verb);

    Database& database_;
};

}  // namespace sandbox

#endif
