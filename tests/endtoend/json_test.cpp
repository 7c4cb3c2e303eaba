// What every command tells programs: one object, as docs/json.md describes it.

#include <csignal>
#include <map>
#include <sstream>

#include "tests/endtoend/json_schema.h"
#include "tests/endtoend/mount_stand_ins.h"
#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace json_test {

namespace {

using nlohmann::json;

class ToldToPrograms : public ToolTest {
protected:
    ToldToPrograms() { writeFile("image", makeImage(std::size_t{8} << 20, 61)); }

    /// The one object that a command prints, which is as the schema says.
    json runTold(Arguments const& arguments) const {
        Outcome const outcome = run(joined({arguments, {"--json"}}));
        return readObject(outcome.out, outcome.status, arguments.front());
    }

    json readObject(std::string const& text, int status, std::string const& command) const {
        json const object = json::parse(text, nullptr, false);
        EXPECT_TRUE(object.is_object()) << text;
        EXPECT_EQ(m_schema.findViolations(object), std::vector<std::string>()) << text;
        EXPECT_EQ(object.value("command", ""), command) << text;
        EXPECT_EQ(object.value("exitStatus", -1), status) << text;
        EXPECT_EQ(object.contains("error"), status == 2 || status > 2) << text;
        return object;
    }

    /// A chain, and all else that the commands of `commandsThatWork` need.
    void makeChain() const {
        for (Arguments const& command :
             {Arguments{"import", "image", "full.vmdk"},
              {"import", "image", "mon.vmdk", "--parent", "full.vmdk", "--label", "a day"},
              {"child", "mon.vmdk", "tue.vmdk"},
              {"create", "spare.vmdk", "--size", "8M"},
              {"create", "old.vmdk", "--size", "8M", "--compressed"}})
            runWell(command);
        std::filesystem::create_directory(path("copies"));
        writeFile("right", "right\n");
        runWell({"create", "secret.vmdk", "--size", "8M", "--encrypt", "--rounds", "1000",
                 "--password-file", "right"});
    }

    /// In an order in which each finds what it needs.
    static std::vector<Arguments> const& commandsThatWork() {
        static std::vector<Arguments> const kCommands{
            {"create", "new.vmdk", "--size", "8M"},
            {"info", "tue.vmdk", "--space", "--look", "."},
            {"list", "."},
            {"import", "image", "imported.vmdk", "--compressed"},
            {"import", "image", "imported.vmdk", "--parent", "full.vmdk", "--force"},
            {"export", "mon.vmdk", "exported"},
            {"export", "mon.vmdk", "exported", "--force", "--salvage"},
            {"export", "mon.vmdk", "exported", "--force", "--zeros", "skip"},
            {"convert", "mon.vmdk", "converted.vmdk", "--compressed"},
            {"compare", "image", "full.vmdk"},
            {"check", "tue.vmdk"},
            {"check", "tue.vmdk", "--sample", "50"},
            {"map", "tue.vmdk"},
            {"map", "tue.vmdk", "--svg", "picture.svg"},
            {"files", "mon.vmdk"},
            {"mount", "mon.vmdk", "copies"},
            {"umount", "copies"},
            {"child", "tue.vmdk", "wed.vmdk"},
            {"copy", "old.vmdk", "copies"},
            {"rename", "old.vmdk", "older.vmdk"},
            {"merge", "mon.vmdk", "tue.vmdk", "merged.vmdk"},
            {"digest", "tue.vmdk"},
            {"digest", "tue.vmdk", "--print"},
            {"repair", "tue.vmdk"},
            {"compact", "mon.vmdk"},
            {"rebase", "wed.vmdk", "--parent", "mon.vmdk"},
            {"password", "secret.vmdk", "--password-file", "right", "--rounds", "1000",
             "--new-password-file", "right"},
            {"drop", "tue.vmdk"},
            {"flatten", "mon.vmdk"},
            {"delete", "spare.vmdk"},
            {"prune", ".", "--keep-last", "1", "--dry-run"},
            {"prune", ".", "--keep-last", "100"},
            {"unlock", "mon.vmdk"},
            {"help", "disks"},
        };
        return kCommands;
    }

    JSONSchema m_schema;
};

TEST_F(ToldToPrograms, ThePageHasEveryCommandAndNoOther) {
    EXPECT_EQ(m_schema.listCommands(),
              std::set<std::string>(allCommands().begin(), allCommands().end()));
    EXPECT_EQ(m_schema.findUnknownKeywords(), std::set<std::string>());
}

TEST_F(ToldToPrograms, TheCheckOfTheSchemaFindsWhatIsWrong) {
    json const good{{"command", "copy"}, {"arguments", {{"old", "a"}}}, {"files", {"b"}},
                    {"seconds", 0.5},    {"warnings", json::array()},   {"exitStatus", 0}};
    EXPECT_EQ(m_schema.findViolations(good), std::vector<std::string>());
    json bad = good;
    bad.erase("files");
    EXPECT_EQ(m_schema.findViolations(bad), std::vector<std::string>{": lacks files"});
    bad["error"] = {{"code", "Odd"}, {"message", ""}, {"text", ""}, {"properties", {{"a", 1}}}};
    EXPECT_EQ(m_schema.findViolations(bad).size(), 2U) << bad;
    bad = good;
    bad["files"] = {1};
    EXPECT_EQ(m_schema.findViolations(bad),
              std::vector<std::string>{"/files/0: not of type \"string\": 1"});
    bad = good;
    bad["file"] = "b";
    EXPECT_EQ(m_schema.findViolations(bad), std::vector<std::string>{"/file: not in the schema"});
    bad = good;
    bad["command"] = "format";
    EXPECT_EQ(m_schema.findViolations(bad).front(), "no such command: format");
}

TEST_F(ToldToPrograms, EveryCommandThatWorksTellsItsObject) {
    MountStandIns const standIns(folder());
    makeChain();
    std::set<std::string> commands;
    for (Arguments const& command : commandsThatWork()) {
        SCOPED_TRACE(testing::PrintToString(command));
        json const object = runTold(command);
        EXPECT_EQ(object["exitStatus"], 0) << object;
        EXPECT_EQ(object["warnings"], json::array()) << object;
        EXPECT_FALSE(object["arguments"].empty()) << object;
        commands.insert(command.front());
    }
    EXPECT_EQ(commands, std::set<std::string>(allCommands().begin(), allCommands().end()));
}

TEST_F(ToldToPrograms, EveryCommandThatFailsTellsItsError) {
    std::string const missing = path("missing.vmdk");
    std::map<std::string, Arguments> const others{
        {"import", {"import", "missing.vmdk", "new.vmdk"}},
        {"create", {"create", "new.vmdk", "--parent", "missing.vmdk"}},
        {"list", {"list", "missing.vmdk"}},
        {"prune", {"prune", "missing.vmdk", "--keep-last", "1"}},
        {"rebase", {"rebase", "missing.vmdk", "--parent", "image"}},
        {"password",
         {"password", "missing.vmdk", "--password-file", "image", "--new-password-file", "image"}},
        {"merge", {"merge", "missing.vmdk", "missing.vmdk", "new.vmdk"}},
        {"export", {"export", "missing.vmdk", "new"}},
        {"mount", {"mount", "missing.vmdk", "."}},
        {"convert", {"convert", "missing.vmdk", "new.vmdk"}},
        {"compare", {"compare", "missing.vmdk", "image"}},
        {"child", {"child", "missing.vmdk", "new.vmdk"}},
        {"copy", {"copy", "missing.vmdk", "new.vmdk"}},
        {"rename", {"rename", "missing.vmdk", "new.vmdk"}},
    };
    for (std::string const& command : allCommands()) {
        SCOPED_TRACE(command);
        auto const other = others.find(command);
        Arguments const arguments =
            other == others.end() ? Arguments{command, "missing.vmdk"} : other->second;
        json const object = runTold(arguments);
        EXPECT_NE(object["exitStatus"], 0) << object;
        EXPECT_NE(object["arguments"].dump().find("\"" + arguments[1] + "\""), std::string::npos)
            << object;
        EXPECT_FALSE(object["error"]["message"].get<std::string>().empty()) << object;
    }
    EXPECT_EQ(runTold({"info", "missing.vmdk"})["error"],
              (json{{"code", "NotFound"},
                    {"message", "The disk does not exist."},
                    {"text", "The disk does not exist. (uri: " + missing + ")"},
                    {"properties", {{"uri", missing}}},
                    {"file", missing}}));
}

TEST_F(ToldToPrograms, ACommandLineThatMakesNoSenseIsAnErrorToo) {
    for (std::string const& command : allCommands()) {
        json const object = runTold({command, "--colour"});
        EXPECT_EQ(object["exitStatus"], 2) << object;
        EXPECT_EQ(object["error"]["code"], "WrongUsage") << object;
    }
    runWell({"create", "disk.vmdk", "--size", "8M"});
    EXPECT_EQ(runTold({"flatten", "disk.vmdk"})["error"]["code"], "WrongUsage");
}

TEST_F(ToldToPrograms, AnErrorOfAGrainHasItsFileAndItsBytes) {
    runWell({"import", "image", "disk.vmdk", "--compressed"});
    std::string const whole = readFile("disk.vmdk");
    patchFile("disk.vmdk", whole.size() / 2, std::string(64, 'x'));
    json const exported = runTold({"export", "disk.vmdk", "out"});
    EXPECT_EQ(exported["exitStatus"], 7) << exported;
    json const error = exported["error"];
    EXPECT_EQ(error["code"], "CorruptData");
    EXPECT_EQ(error["file"], path("disk.vmdk"));
    auto const startBytes = error["range"]["startBytes"].get<long long>();
    EXPECT_EQ(startBytes % 65536, 0);
    EXPECT_EQ(error["range"]["lengthBytes"], 65536);
    EXPECT_EQ(error["properties"]["grain"], std::to_string(startBytes / 65536));

    Outcome const checked = run({"check", "disk.vmdk", "--json"});
    EXPECT_EQ(checked.status, 1);
    json const findings = json::parse(checked.out);
    EXPECT_EQ(m_schema.findViolations(findings), std::vector<std::string>());
    EXPECT_EQ(findings["findingCount"], findings["findings"].size());
    EXPECT_EQ(findings["findings"][0]["file"], path("disk.vmdk"));
    EXPECT_EQ(findings["findings"][0]["range"], error["range"]);
    EXPECT_FALSE(findings.contains("error"));

    Outcome const salvaged = run({"export", "disk.vmdk", "out", "--salvage", "--json"});
    EXPECT_EQ(salvaged.status, 7);
    json const damage = json::parse(salvaged.out);
    EXPECT_EQ(m_schema.findViolations(damage), std::vector<std::string>());
    EXPECT_EQ(damage["damage"][0]["range"], error["range"]);
    EXPECT_EQ(damage["damagedBytes"], 65536);
}

TEST_F(ToldToPrograms, TheObjectGivesWayToAnImageAndToAPicture) {
    runWell({"import", "image", "disk.vmdk"});
    Outcome const exported = run({"export", "disk.vmdk", "-", "--json"});
    EXPECT_EQ(exported.out, readFile("image"));
    EXPECT_EQ(exported.err.find('\n'), exported.err.size() - 1);
    readObject(exported.err, exported.status, "export");
    for (Arguments const& command :
         {Arguments{"map", "disk.vmdk", "--svg", "-"}, {"list", ".", "--svg", "-"}}) {
        Outcome const drawn = run(joined({command, {"--json"}}));
        EXPECT_TRUE(drawn.out.ends_with("</svg>\n")) << drawn.out;
        EXPECT_EQ(drawn.err.find('\n'), drawn.err.size() - 1);
        readObject(drawn.err, drawn.status, command.front());
    }
    for (Arguments const& command :
         {Arguments{"export", "missing.vmdk", "-"}, {"export", "disk.vmdk", "-", "--colour"}}) {
        Outcome const failed = run(joined({command, {"--json"}}));
        EXPECT_EQ(failed.out, "");
        std::size_t const secondLine = failed.err.find('\n') + 1;
        readObject(failed.err.substr(secondLine), failed.status, "export");
    }
}

TEST_F(ToldToPrograms, TransfersCountWhatTheyReadStoreAndSkip) {
    std::string image(std::size_t{8} << 20, 'a');
    image.replace(std::size_t{1} << 20, std::size_t{2} << 20,
                  std::string(std::size_t{2} << 20, '\0'));
    writeFile("image", image);
    constexpr long long kWhole = 8 << 20;
    constexpr long long kZeros = 2 << 20;
    for (Arguments const& kind : {Arguments{}, {"--compressed"}, {"--no-digests"}}) {
        SCOPED_TRACE(testing::PrintToString(kind));
        json const told = runTold(joined({{"import", "image", "disk.vmdk", "--force"}, kind}));
        EXPECT_EQ(told["readBytes"], kWhole);
        EXPECT_EQ(told["storedBytes"], kWhole - kZeros);
        EXPECT_EQ(told["skippedBytes"], kZeros);
        json const exported = runTold({"export", "disk.vmdk", "out", "--force"});
        EXPECT_EQ(exported["storedBytes"], kWhole - kZeros);
        EXPECT_EQ(exported["skippedBytes"], kZeros);
        EXPECT_EQ(exported["zeros"],
                  (json{{"punchedBytes", kZeros}, {"leftBytes", 0}, {"writtenBytes", 0}}));
        json const converted = runTold({"convert", "disk.vmdk", "other.vmdk", "--force"});
        EXPECT_EQ(converted["storedBytes"], kWhole - kZeros);
        EXPECT_EQ(converted["skippedBytes"], kZeros);
    }
    json const skipped = runTold({"export", "disk.vmdk", "out", "--force", "--zeros", "skip"});
    EXPECT_EQ(skipped["zeros"],
              (json{{"punchedBytes", 0}, {"leftBytes", kZeros}, {"writtenBytes", 0}}));
    EXPECT_EQ(readFile("out"), image);
    for (Arguments const& salvage : {Arguments{}, {"--salvage"}}) {
        json const written =
            runTold(joined({{"export", "disk.vmdk", "out", "--force", "--zeros=write"}, salvage}));
        EXPECT_EQ(written["zeros"],
                  (json{{"punchedBytes", 0}, {"leftBytes", 0}, {"writtenBytes", kZeros}}));
        EXPECT_EQ(readFile("out"), image);
    }
    runBadly(2, {"export", "disk.vmdk", "out", "--force", "--zeros", "tea"});
    EXPECT_EQ(readFile("out"), image);
    image[0] = 'b';
    writeFile("image", image);
    for (Arguments const& kind : {Arguments{}, {"--compressed"}, {"--no-digests"}}) {
        json const told = runTold(
            joined({{"import", "image", "child.vmdk", "--parent", "disk.vmdk", "--force"}, kind}));
        EXPECT_EQ(told["readBytes"], kWhole);
        EXPECT_EQ(told["storedBytes"], 65536);
        EXPECT_EQ(told["skippedBytes"], kWhole - 65536);
    }
    json const merged = runTold({"merge", "disk.vmdk", "child.vmdk", "merged.vmdk"});
    EXPECT_EQ(merged["storedBytes"], kWhole - kZeros);
    EXPECT_EQ(runTold({"flatten", "child.vmdk"})["storedBytes"], kWhole - kZeros - 65536);
    json const copied = runTold({"copy", "disk.vmdk", "copy.vmdk"});
    // Where the file system shares the space, nothing is read.
    if (copied.contains("storedBytes")) {
        EXPECT_LE(copied["storedBytes"].get<long long>(), kWhole) << copied;
        EXPECT_GT(copied["readBytes"], copied["storedBytes"]) << copied;
    }
    EXPECT_FALSE(runTold({"info", "disk.vmdk"}).contains("readBytes"));
}

TEST_F(ToldToPrograms, ProgressEndsWithALineThatSaysAllIsDone) {
    for (Arguments const& command : {Arguments{"import", "image", "disk.vmdk"},
                                     {"export", "disk.vmdk", "out"},
                                     {"convert", "disk.vmdk", "other.vmdk"},
                                     {"check", "disk.vmdk"},
                                     {"merge", "disk.vmdk", "disk.vmdk", "merged.vmdk"},
                                     {"digest", "disk.vmdk", "--force"},
                                     {"copy", "disk.vmdk", "copy.vmdk"},
                                     {"compare", "image", "disk.vmdk"}}) {
        SCOPED_TRACE(command.front());
        Outcome const outcome = run(joined({command, {"--progress=json"}}));
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        ASSERT_FALSE(outcome.err.empty());
        std::istringstream lines(outcome.err);
        json last;
        for (std::string line; std::getline(lines, line);) {
            last = json::parse(line);
            EXPECT_EQ(last["progress"], command.front());
            EXPECT_LE(last["doneBytes"], last["totalBytes"]);
        }
        EXPECT_EQ(last["doneBytes"], last["totalBytes"]) << outcome.err;
        EXPECT_EQ(last["secondsLeft"], 0);
    }
    EXPECT_EQ(run({"export", "disk.vmdk", "out", "--force", "--progress=none"}).err, "");
    runBadly(2, {"export", "disk.vmdk", "out", "--progress=tea"});
}

TEST_F(ToldToPrograms, ATransferThatIsHeldToARateEndsAtASignal) {
    // A year's work; nothing is waited for but the first of it.
    RunningTool tool(folder(), {"import", "image", "disk.vmdk", "--limit-rate", "1", "--nice-io",
                                "--progress=none"});
    waitForFile(tool, "disk.vmdk");
    tool.signal(SIGINT);
    Outcome const outcome = tool.finish();
    EXPECT_EQ(outcome.status, 10) << outcome.err;
    EXPECT_EQ(listFiles(), std::set<std::string>{"image"});
    runBadly(2, {"import", "image", "disk.vmdk", "--limit-rate", "0"});
    for (Arguments const& command : {Arguments{"import", "image", "disk.vmdk"},
                                     {"export", "disk.vmdk", "out"},
                                     {"convert", "disk.vmdk", "other.vmdk"},
                                     {"merge", "disk.vmdk", "disk.vmdk", "merged.vmdk"},
                                     {"copy", "disk.vmdk", "copy.vmdk"},
                                     {"drop", "copy.vmdk"},
                                     {"digest", "disk.vmdk", "--force"}})
        runWell(joined({command, {"--limit-rate", "10G", "--nice-io"}}));
}

TEST_F(ToldToPrograms, WarningsAreInTheObjectAndOnStandardError) {
    runWell({"import", "image", "disk.vmdk"});
    std::string descriptor = readFile("disk.vmdk");
    runWell({"create", "spare.vmdk", "--size", "8M"});
    writeFile("spare.vmdk.deleting", "");
    Outcome const outcome = run({"info", "disk.vmdk", "--json"});
    EXPECT_EQ(readObject(outcome.out, 0, "info")["warnings"], json::array());
    std::filesystem::create_directory(path("disk.vmdk.former"));
    Outcome const warned = run({"info", "disk.vmdk", "--json"});
    json const warnings = readObject(warned.out, 0, "info")["warnings"];
    ASSERT_EQ(warnings.size(), 1U) << warned.out;
    EXPECT_EQ(warned.err, "kelm: warning: " + warnings[0].get<std::string>() + "\n");
}

} // namespace

} // namespace json_test

} // namespace endtoend
