#include "sandbox/actions.h"

#include <algorithm>

#include "sandbox/store/characters.h"
#include "sandbox/store/event.h"

namespace sandbox {
namespace {

constexpr Parameter kPath{"path", Type::kText};
constexpr Parameter kSource{"source", Type::kText};
constexpr Parameter kDestination{"destination", Type::kText};
constexpr Parameter kRecursive{"recursive", Type::kUint32};
constexpr Parameter kSelection{"dataselection", Type::kUint32};
constexpr Parameter kData{"data", Type::kText};
constexpr Parameter kFilter{"filter", Type::kText};
constexpr Parameter kDsid{"dsid", Type::kUint32};
constexpr Parameter kClient{"client", Type::kText};
constexpr Parameter kPolicy{"policy", Type::kText};
constexpr Parameter kParent{"parentid", Type::kInt32};
constexpr Parameter kDatetime{"datetime", Type::kUint64};
constexpr Parameter kImage{"imagename", Type::kText};
constexpr Parameter kApplication{"appname", Type::kText};
constexpr Parameter kFlags{"flags", Type::kInt32};
constexpr Parameter kWormFlags{"wormflags", Type::kInt64};
constexpr Parameter kRetention{"retention", Type::kInt64};
constexpr Parameter kParentOrNot{"parentid", Type::kInt32, true};
constexpr Parameter kImageOrNot{"imagename", Type::kText, true};
constexpr Parameter kDofpOrNot{"dofp", Type::kText, true};
constexpr Parameter kDcidOrNot{"dcid", Type::kUint64, true};

std::string makeDirectory(Context& context, const Parameters& given) {
    context.names.mkdir(given.text("path"), context.now);
    return {};
}

std::string copyEntry(Context& context, const Parameters& given) {
    context.names.copy(given.text("source"), given.text("destination"), given.flag("recursive"));
    return {};
}

std::string moveEntry(Context& context, const Parameters& given) {
    context.names.move(given.text("source"), given.text("destination"));
    return {};
}

std::string deleteEntry(Context& context, const Parameters& given) {
    context.names.remove(given.text("path"), given.flag("recursive"));
    return {};
}

std::string listDirectory(Context& context, const Parameters& given) {
    return context.names.list(given.text("path"), given.flag("recursive"));
}

uint32_t selectionOf(Context& context, const Parameters& given) {
    const auto number = static_cast<uint32_t>(given.number("dataselection"));
    context.selections.need(number);
    return number;
}

std::string addPOs(Context& context, const Parameters& given) {
    return context.pos.add(selectionOf(context, given), given.text("data"),
                           POStore::OnKnown::kReplace);
}

std::string addNewPOs(Context& context, const Parameters& given) {
    return context.pos.add(selectionOf(context, given), given.text("data"),
                           POStore::OnKnown::kKeep);
}

std::string expirePOs(Context& context, const Parameters& given) {
    return context.pos.expire(selectionOf(context, given), given.text("data"));
}

std::string findPOs(Context& context, const Parameters& given) {
    return context.pos.find(selectionOf(context, given), given.text("filter"), context.more);
}

/// An image from the given parameters, with defaults for the others. Without a name, the dofp is
/// the image name. Throws Event for an unknown data selection, and for a text that cannot be a
/// field of an answer's line.
Image imageOf(Context& context, const Parameters& given) {
    const auto text = [&](const char* name) {
        std::string value = given.has(name) ? given.text(name) : "";
        if (!isField(value)) {
            throw Event{POOL_EVENT_BAD_IMAGE,
                        std::string(name) + " has a '|' or a control character"};
        }
        return value;
    };
    const auto number = [&](const char* name) { return given.has(name) ? given.number(name) : 0; };
    Image image;
    image.dsid = static_cast<uint32_t>(given.number("dsid"));
    context.selections.need(image.dsid);
    image.client = text("client");
    image.policy = text("policy");
    image.dofp = text("dofp");
    image.name = given.has("imagename") ? text("imagename") : image.dofp;
    image.parent = number("parentid");
    image.datetime = number("datetime");
    image.dcid = number("dcid");
    image.flags = number("flags");
    return image;
}

std::string setImage(Context& context, const Parameters& given) {
    const bool second = given.has("dofp") && given.has("dcid");
    const bool first = given.has("imagename") && given.has("parentid");
    if (first == second) {
        throw Event{POOL_EVENT_BAD_REQUEST,
                    "setlastimage needs parentid and imagename, or dofp and dcid"};
    }
    context.images.set(imageOf(context, given));
    return {};
}

std::string lastImages(Context& context, const Parameters& given) {
    return context.images.last(imageOf(context, given));
}

std::string deleteImage(Context& context, const Parameters& given) {
    context.images.remove(imageOf(context, given));
    return {};
}

std::string setRetention(Context& context, const Parameters& given) {
    context.images.retain(imageOf(context, given), given.number("retention"),
                          given.number("wormflags"), context.now);
    return {};
}

std::string getRetention(Context& context, const Parameters& given) {
    return context.images.retention(imageOf(context, given));
}

std::string findPolicy(Context& context, const Parameters& given) {
    return context.images.policy(imageOf(context, given));
}

std::string getTag(Context& context, const Parameters& given) {
    return context.selections.tag(static_cast<uint32_t>(given.number("dataselection")));
}

std::string tellTime(Context& context, const Parameters& /*given*/) {
    return std::to_string(context.now) + "\n";
}

std::string doNothing(Context& /*context*/, const Parameters& /*given*/) {
    return {};
}

constexpr Action kActions[] = {
    // name, service, permission, changes, body, parameters, handler
    {"mkdir", "metabase", "write", true, nullptr, {kPath}, makeDirectory},
    {"copy", "metabase", "write", true, nullptr, {kSource, kDestination, kRecursive}, copyEntry},
    {"move", "metabase", "write", true, nullptr, {kSource, kDestination, kRecursive}, moveEntry},
    {"delete", "metabase", "delete", true, nullptr, {kPath, kRecursive}, deleteEntry},
    {"dir", "metabase", "read", false, nullptr, {kPath, kRecursive}, listDirectory},
    {"import", "metabase", "write", true, nullptr, {kSelection, kData}, addPOs},
    {"addlist", "metabase", "write", true, "data", {kSelection}, addPOs},
    {"zeltaddlist", "metabase", "write", true, "data", {kSelection}, addNewPOs},
    {"expire", "metabase", "delete", true, nullptr, {kSelection, kData}, expirePOs},
    {"find", "metabase", "read", false, nullptr, {kSelection, kFilter}, findPOs},
    {"setlastimage",
     "metabase",
     "write",
     true,
     nullptr,
     {kDsid, kClient, kPolicy, kParentOrNot, kDatetime, kImageOrNot, kDofpOrNot, kDcidOrNot,
      kFlags},
     setImage},
    {"getlastimage",
     "metabase",
     "read",
     false,
     nullptr,
     {kDsid, kClient, kPolicy, kParent, kDatetime},
     lastImages},
    {"deleteimage",
     "metabase",
     "delete",
     true,
     nullptr,
     {kDsid, kClient, kPolicy, kImage, kApplication, kFlags},
     deleteImage},
    {"setimgretention",
     "metabase",
     "write",
     true,
     nullptr,
     {kDsid, kClient, kPolicy, kImage, kFlags, kWormFlags, kRetention},
     setRetention},
    {"getimgretention",
     "metabase",
     "read",
     false,
     nullptr,
     {kDsid, kClient, kPolicy, kImage},
     getRetention},
    {"findpolicy", "metabase", "read", false, nullptr, {kDsid, kClient, kImage}, findPolicy},
    {"getHVXTag", "spa", "read", false, nullptr, {kSelection}, getTag},
    {"gettime", "metabase", nullptr, false, nullptr, {}, tellTime},
    {"discover", "keepalive", nullptr, false, nullptr, {}, doNothing},
};

}  // namespace

std::vector<std::string> actionNames() {
    std::vector<std::string> names;
    for (const Action& action : kActions)
        names.emplace_back(action.name);
    names.emplace_back("arch");
    return names;
}

bool isActionName(const std::string& name) {
    const std::vector<std::string> names = actionNames();
    return std::find(names.begin(), names.end(), name) != names.end();
}

const Action* findAction(const std::string& service, const std::string& name) {
    for (const Action& action : kActions) {
        if (name == action.name && service == action.service) return &action;
    }
    return nullptr;
}

}  // namespace sandbox
