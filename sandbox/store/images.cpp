#include "sandbox/store/images.h"

#include <string_view>

#include "sandbox/store/event.h"

namespace sandbox {
namespace {

[[noreturn]] void missing(const Image& named) {
    throw Event{POOL_EVENT_NO_IMAGE, "no such image: " + named.name + " of client " + named.client};
}

}  // namespace

ImageStore::ImageStore(Database& database) : database_(database) {
    database_.script(
        "CREATE TABLE IF NOT EXISTS images (ds INTEGER NOT NULL, client TEXT NOT NULL,"
        " policy TEXT NOT NULL, name TEXT NOT NULL, dofp TEXT NOT NULL, parent INTEGER NOT NULL,"
        " datetime INTEGER NOT NULL, dcid INTEGER NOT NULL, flags INTEGER NOT NULL,"
        " retention TEXT, PRIMARY KEY (ds, client, policy, name)) WITHOUT ROWID");
}

void ImageStore::set(const Image& image) {
    database_.run(
        "INSERT INTO images VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, NULL)"
        " ON CONFLICT DO UPDATE SET dofp = excluded.dofp, parent = excluded.parent,"
        " datetime = excluded.datetime, dcid = excluded.dcid, flags = excluded.flags",
        image.dsid, image.client, image.policy, image.name, image.dofp, image.parent,
        image.datetime, image.dcid, image.flags);
}

std::string ImageStore::last(const Image& wanted) {
    std::string lines;
    Query row = database_.query(
        "SELECT datetime, client, policy, parent, name, dofp, dcid, flags FROM images"
        " WHERE ds = ?1 AND (?2 = '' OR client = ?2) AND (?3 = '' OR policy = ?3)"
        " AND (?4 = -1 OR parent = ?4) AND datetime >= ?5 ORDER BY datetime DESC, name",
        wanted.dsid, wanted.client, wanted.policy, wanted.parent, wanted.datetime);
    while (row.step()) {
        const auto number = [&](int column) { return std::to_string(row.number(column)); };
        lines.append(number(0)).append("|").append(row.text(1)).append("|").append(row.text(2));
        lines.append("|").append(number(3)).append("|").append(row.text(4)).append("|");
        lines.append(row.text(5)).append("|").append(number(6)).append("|").append(number(7));
        lines += '\n';
    }
    return lines;
}

void ImageStore::remove(const Image& named) {
    Query gone = database_.query(
        "DELETE FROM images WHERE ds = ? AND client = ? AND policy = ? AND name = ? RETURNING 1",
        named.dsid, named.client, named.policy, named.name);
    if (!gone.step()) missing(named);
}

void ImageStore::retain(const Image& named, int64_t retention, int64_t wormFlags, int64_t now) {
    std::string text;
    for (const int64_t number : {retention, wormFlags, named.flags, now})
        text += std::to_string(number) + ";";
    text += "set by kspool-sandbox;";
    Query changed = database_.query(
        "UPDATE images SET retention = ? WHERE ds = ? AND client = ? AND policy = ? AND name = ?"
        " RETURNING 1",
        text, named.dsid, named.client, named.policy, named.name);
    if (!changed.step()) missing(named);
}

std::string ImageStore::retention(const Image& named) {
    Query row = database_.query(
        "SELECT coalesce(retention, '') FROM images"
        " WHERE ds = ? AND client = ? AND policy = ? AND name = ?",
        named.dsid, named.client, named.policy, named.name);
    if (!row.step()) missing(named);
    return std::string(row.text(0));
}

std::string ImageStore::policy(const Image& named) {
    Query row = database_.query(
        "SELECT policy FROM images WHERE ds = ? AND client = ? AND name = ? ORDER BY policy",
        named.dsid, named.client, named.name);
    if (!row.step()) missing(named);
    return std::string(row.text(0));
}

void ImageStore::each(const Image& after,
                      const std::function<bool(const Image&, std::string_view)>& visit) {
    Query row = database_.query(
        "SELECT ds, client, policy, name, dofp, parent, datetime, dcid, flags,"
        " coalesce(retention, '') FROM images WHERE (ds, client, policy, name) > (?, ?, ?, ?)"
        " ORDER BY ds, client, policy, name",
        after.dsid, after.client, after.policy, after.name);
    bool more = true;
    while (more && row.step()) {
        const auto text = [&](int column) { return std::string(row.text(column)); };
        const Image image = {static_cast<uint32_t>(row.number(0)),
                             text(1),
                             text(2),
                             text(3),
                             text(4),
                             row.number(5),
                             row.number(6),
                             row.number(7),
                             row.number(8)};
        more = visit(image, row.text(9));
    }
}

void ImageStore::clear() {
    database_.run("DELETE FROM images");
}

}  // namespace sandbox
