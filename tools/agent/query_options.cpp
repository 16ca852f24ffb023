#include <map>
#include <memory>

#include "tools/agent/expire.h"
#include "tools/agent/find.h"
#include "tools/agent/images.h"
#include "tools/agent/options.h"
#include "tools/agent/verify.h"
#include "tools/shared/session_options.h"

namespace agent {
namespace {

constexpr char kFindFooter[] =
    "A PATTERN with a slash, or one of . and .., is a path, which stands for the entry\n"
    "itself and for all below it; any other is a name. * is any text, ? any character.\n"
    "Exit code: 0 found; 10 nothing found; 1 failed; 2 bad options; 12 permission\n"
    "denied; 13 no answer from the server.";

constexpr char kImagesFooter[] =
    "An image is incomplete while it has no record: its recording goes on, or has ended\n"
    "early, or the image is half expired. --client '*' lists those of all clients.\n"
    "Exit code: 0 listed; 10 no image; 1 failed; 2 bad options; 12 permission denied;\n"
    "13 no answer from the server.";

constexpr char kExpireFooter[] =
    "AGE is a number with s, m, h, d or w. By age, the newest complete image of the\n"
    "client and policy is kept, and images that are incomplete go with the others.\n"
    "Exit code: 0 expired; 10 there was nothing to expire; 1 failed, perhaps for some\n"
    "images only; 2 bad options; 12 permission denied; 13 no answer from the server.";

constexpr char kVerifyFooter[] =
    "Contents, kinds and the targets of symbolic links are compared, not modes or times.\n"
    "Exit code: 0 all is the same; 4 something differs; 3 the same, but not all could be\n"
    "compared; 10 no such image, or an incomplete one; 1 failed; 2 bad options; 12\n"
    "permission denied; 13 no answer from the server.";

const std::map<std::string, uint64_t> kUnits = {
    {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86'400}, {"w", 604'800}};

constexpr size_t kLongestPattern = 4095;
constexpr uint64_t kLongestAge = uint64_t{1} << 40;  ///< seconds

CLI::Option* addAge(CLI::App& command, uint64_t& age) {
    return command.add_option("--older-than", age, "Expire the images that are older")
        ->type_name("AGE")
        ->transform(CLI::AsNumberWithUnit(kUnits, CLI::AsNumberWithUnit::UNIT_REQUIRED, ""))
        ->check(CLI::Range(uint64_t{1}, kLongestAge, "1s to 34,000 years"));
}

}  // namespace

void addFind(CLI::App& app, tool::ExitCode& code) {
    const auto kept = std::make_shared<FindOptions>();
    CLI::App* command = app.add_subcommand("find", "List the files that are recorded");
    tool::addSessionOptions(*command, kept->session);
    addImageName(*command, kept->name, true);
    command->add_option("PATTERN", kept->patterns, "Names or paths [all]")
        ->check(tool::textUpTo(kLongestPattern));
    command->add_option("--type", kept->type, "f files, d folders, l symbolic links [all]")
        ->check(CLI::IsMember({"f", "d", "l"}));
    CLI::Option* json = command->add_flag("--json", kept->json, "Report as JSON");
    command->add_flag("-0,--null", kept->pathsOnly, "Paths only, each ended by NUL, for xargs -0")
        ->excludes(json);
    command->footer(kFindFooter);
    command->callback([kept, &code] { code = find(*kept); });
}

void addVerify(CLI::App& app, tool::ExitCode& code) {
    const auto kept = std::make_shared<VerifyOptions>();
    CLI::App* command = app.add_subcommand("verify", "Compare files with the records of an image");
    command->add_option("PATH", kept->paths, "Compare what lies at and below it [all recorded]")
        ->check(tool::textUpTo(kLongestPattern));
    tool::addSessionOptions(*command, kept->session);
    addImageName(*command, kept->name, false)->required();
    addLimits(*command, kept->exclude, kept->oneFileSystem);
    addJobs(*command, kept->jobs);
    command->add_flag("--json", kept->json, "Report as JSON");
    command->footer(kVerifyFooter);
    command->callback([kept, &code] { code = verify(*kept); });
}

void addImages(CLI::App& app, tool::ExitCode& code) {
    const auto kept = std::make_shared<ImagesOptions>();
    CLI::App* command = app.add_subcommand("images", "List the images that are recorded");
    tool::addSessionOptions(*command, kept->session);
    kept->name.policy = "*";
    addClient(*command, kept->name, true);
    command->add_flag("--json", kept->json, "Report as JSON");
    command->footer(kImagesFooter);
    command->callback([kept, &code] { code = images(*kept); });
}

void addExpire(CLI::App& app, tool::ExitCode& code) {
    const auto kept = std::make_shared<ExpireOptions>();
    CLI::App* command = app.add_subcommand("expire", "Expire the files of images, and the images");
    tool::addSessionOptions(*command, kept->session);
    CLI::Option* image = addImageName(*command, kept->name, false);
    CLI::Option* age = addAge(*command, kept->age)->excludes(image);
    command->add_flag("--even-newest", kept->evenNewest, "Expire the newest image too")->needs(age);
    command->add_flag("-n,--dry-run", kept->dryRun, "Only tell what would be expired");
    command->add_flag("--json", kept->json, "Report as JSON");
    command->footer(kExpireFooter);
    command->callback([kept, &code] {
        if (kept->name.image.empty() && kept->age == 0) {
            throw tool::Failure(tool::ExitCode::kUsage, "--image or --older-than is needed");
        }
        code = expire(*kept);
    });
}

}  // namespace agent
