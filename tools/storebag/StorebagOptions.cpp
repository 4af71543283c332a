#include "tools/storebag/StorebagOptions.h"

#include "tools/common/CommandLine.h"

#include <CLI/CLI.hpp>

namespace quorvane::tools {

namespace {

constexpr const char* kDescription =
    "Makes, signs and checks storebags, the signed configuration that quorvaned downloads. Where a file is "
    "named, - stands for standard input or output.";
constexpr const char* kFooter = "Exit status: 0 done, 1 failed or not valid, 2 usage.";

void addKeygen(CLI::App& app, std::optional<Command>& command) {
    auto [keygen, options] = addCommand<Keygen>(app, "keygen", "Make a pair of keys", command);
    keygen
        ->add_option("--private-key", options.privateKey,
                     "Where to write the key that signs (PEM); only its owner can read it")
        ->type_name("FILE")
        ->capture_default_str();
    keygen->add_option("--public-key", options.publicKey, "Where to write the key that devices get (DER)")
        ->type_name("FILE")
        ->capture_default_str();
    between(keygen->add_option("--bits", options.bits, "Length of the RSA key"), kMinimumKeyBits,
            kMaximumKeyBits)
        ->capture_default_str();
    keygen->add_flag("--force", options.force, "Replace keys that are there");
}

void addSign(CLI::App& app, std::optional<Command>& command) {
    auto [sign, options] = addCommand<Sign>(app, "sign", "Sign a bag", command);
    sign->add_option("source", options.source, "The bag: TOML, JSON or a property list")
        ->type_name("FILE")
        ->required();
    sign->add_option("--format", options.format, "The source's form; by the file's ending without it")
        ->check(CLI::IsMember({"toml", "json", "plist"}));
    sign->add_option("--private-key", options.privateKey, "The key that signs (PEM)")
        ->type_name("FILE")
        ->required();
    sign->add_option("-o,--output", options.output, "Where to write the signed storebag")
        ->type_name("FILE")
        ->capture_default_str();
    sign->add_flag("--strict", options.strict, "Sign nothing that there is a warning about");
}

void addVerify(CLI::App& app, std::optional<Command>& command) {
    auto [verify, options] =
        addCommand<Verify>(app, "verify", "Check that devices would take a signed storebag", command);
    verify->add_option("storebag", options.storebag, "The signed storebag")->type_name("FILE")->required();
    verify->add_option("--public-key", options.publicKey, "The key that devices have (DER)")
        ->type_name("FILE")
        ->required();
    verify->add_flag("--strict", options.strict, "Fail when there is a warning");
}

void addInspect(CLI::App& app, std::optional<Command>& command) {
    auto [inspect, options] =
        addCommand<Inspect>(app, "inspect", "Print what is in a signed storebag", command);
    inspect->add_option("storebag", options.storebag, "The signed storebag")->type_name("FILE")->required();
    inspect
        ->add_option("--public-key", options.publicKey,
                     "Tell whether the signature is good for this key (DER)")
        ->type_name("FILE");
    inspect->add_flag("--json", options.json, "Print JSON");
}

}  // namespace

std::optional<Command> readCommand(int argc, char** argv, int& status) {
    std::optional<Command> command;
    CLI::App app(kDescription, "quorvane-storebag");
    app.footer(kFooter);
    addKeygen(app, command);
    addSign(app, command);
    addVerify(app, command);
    addInspect(app, command);
    if (!parse(app, argc, argv, status)) return std::nullopt;
    return command;
}

}  // namespace quorvane::tools
