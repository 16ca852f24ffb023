// Records of backup images.
#ifndef SANDBOX_STORE_IMAGES_H
#define SANDBOX_STORE_IMAGES_H

#include <cstdint>
#include <string>

#include "sandbox/store/database.h"

namespace sandbox {

struct Image {
    uint32_t dsid = 0;
    std::string client, policy, name, dofp;
    int64_t parent = 0, datetime = 0, dcid = 0, flags = 0;
};

/// Its actions throw Event.
class ImageStore {
  public:
    explicit ImageStore(Database& database);

    void set(const Image& image);
    std::string last(const Image& wanted);
    void remove(const Image& named);
    void retain(const Image& named, int64_t retention, int64_t wormFlags, int64_t now);
    std::string retention(const Image& named);
    std::string policy(const Image& named);

    void clear();

  private:
    Database& database_;
};

}  // namespace sandbox

#endif
