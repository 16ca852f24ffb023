// Records of backup images, identified by data selection, client, policy and name.
//
// Thread rule: one thread at a time. No state but the table: changes are part of the transaction
// that is open.
#ifndef SANDBOX_STORE_IMAGES_H
#define SANDBOX_STORE_IMAGES_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "sandbox/store/database.h"

namespace sandbox {

/// An image, or the criteria of a search for images.
struct Image {
    uint32_t dsid = 0;
    std::string client, policy, name, dofp;
    int64_t parent = 0, datetime = 0, dcid = 0, flags = 0;
};

/// All functions throw DatabaseError; remove(), retain(), retention() and policy() throw Event when
/// the image does not exist.
class ImageStore {
  public:
    explicit ImageStore(Database& database);

    /// Adds an image, or replaces all of it but its retention.
    void set(const Image& image);
    /// The answer of getlastimage: one line for each image of `wanted` that is not older than its
    /// datetime, newest first. An empty client or policy and the parent -1 match any.
    std::string last(const Image& wanted);
    void remove(const Image& named);
    void retain(const Image& named, int64_t retention, int64_t wormFlags, int64_t now);
    /// The five fields that retain() stored, or empty.
    std::string retention(const Image& named);
    /// The first policy, in the order of bytes, with an image of this name.
    std::string policy(const Image& named);

    /// Visits the images after a key, in the order of keys, until `visit` returns false. The second
    /// argument is the retention, which may be empty.
    void each(const Image& after, const std::function<bool(const Image&, std::string_view)>& visit);

    void clear();

  private:
    Database& database_;
};

}  // namespace sandbox

#endif
