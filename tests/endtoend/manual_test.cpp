#include <cstdlib>
#include <regex>
#include <sstream>

#include <sys/wait.h>

#include "tests/endtoend/mount_stand_ins.h"
#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

/// What a user can read about the program: the help, the manual page, the completion of the shell.
class Manual : public ToolTest {
protected:
    /// Runs a line of the shell in the folder, where the program and its neighbours are to be had.
    Outcome runShell(std::string const& line) const {
        std::string const command = "cd '" + folder().string() + "' && PATH='" + path("bin") +
                                    "':\"$PATH\" && export PATH && { " + line +
                                    "; } > out 2> err < /dev/null";
        Outcome outcome;
        outcome.status = WEXITSTATUS(std::system(command.c_str()));
        outcome.out = readFile("out");
        outcome.err = readFile("err");
        return outcome;
    }

    static std::set<std::string> optionsIn(std::string const& text) {
        std::set<std::string> options;
        std::regex const option("--[a-z][a-z-]*");
        for (std::sregex_iterator found(text.begin(), text.end(), option), end; found != end;
             ++found)
            options.insert(found->str());
        return options;
    }

    /// Those that the help describes, without those that it only mentions.
    std::set<std::string> optionsOf(std::string const& command) const {
        std::set<std::string> options;
        std::istringstream lines(runWell({command, "--help"}));
        std::regex const entry("  (?:-h,)?(--[a-z][a-z-]*).*");
        std::smatch found;
        for (std::string line; std::getline(lines, line);) {
            if (std::regex_match(line, found, entry))
                options.insert(found[1]);
        }
        return options;
    }

    static std::string replaceAll(std::string text, std::string const& from,
                                  std::string const& to) {
        for (std::size_t at = text.find(from); at != std::string::npos;
             at = text.find(from, at + to.size()))
            text.replace(at, from.size(), to);
        return text;
    }

    void makeProgramFolder() const {
        std::filesystem::create_directory(path("bin"));
        std::filesystem::create_symlink(KELM_TOOL, path("bin/kelm"));
    }

    /// The words that the shell offers behind these.
    std::set<std::string> complete(std::vector<std::string> const& words) const {
        std::string list;
        for (std::string const& word : words)
            list += "'" + word + "' ";
        std::string const script = "source '" KELM_SOURCE_DIR "/tools/kelm/completion/kelm'\n"
                                   "COMP_WORDS=(" +
                                   list +
                                   ")\n"
                                   "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
                                   "_kelm\nprintf '%s\\n' \"${COMPREPLY[@]}\"\n";
        writeFile("script", script);
        Outcome const outcome = runShell("bash script");
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(outcome.err, "");
        std::set<std::string> offered;
        std::istringstream lines(outcome.out);
        for (std::string line; std::getline(lines, line);) {
            if (!line.empty())
                offered.insert(line);
        }
        return offered;
    }
};

TEST_F(Manual, ExamplesOfTheHelpWork) {
    makeProgramFolder();
    MountStandIns const standIns(folder());
    std::filesystem::create_directory(path("mnt"));
    for (char const* name : {"bin/zstd", "bin/zstdcat"}) {
        writeFile(name, "#!/bin/sh\nexec cat \"$@\"\n");
        std::filesystem::permissions(path(name), std::filesystem::perms::owner_all);
    }
    std::filesystem::create_directory(path("backup"));
    std::string const image = makeImage(std::size_t{8} << 20, 31);
    writeFile("sdb", image);
    writeFile("sdb.img.zst", image);
    for (char const* const name : {"password", "old", "new"})
        writeFile(name, std::string(name) + "\n");
    int examples = 0;
    for (std::string const& command : allCommands()) {
        std::string const help = runWell({command, "--help"});
        std::istringstream lines(help.substr(help.find("Example:\n") + 9));
        for (std::string line; std::getline(lines, line);) {
            if (line.find("kelm") == std::string::npos)
                continue;
            SCOPED_TRACE(line);
            // A fresh start for each: the files that an example of this user has.
            runShell("rm -f *.vmdk backup/*.vmdk restored.img backup.svg backup.img.zst");
            bool const makesBackup = command == "create" || command == "import";
            std::string const encryptedSetUp =
                "kelm import sdb monday.vmdk --encrypt --password-file old && "
                "kelm import sdb tuesday.vmdk --parent monday.vmdk --password-file old";
            std::string const setUp =
                "kelm import sdb monday.vmdk && cp monday.vmdk backup/ && "
                "kelm import sdb disk.vmdk && kelm import sdb tuesday.vmdk --parent monday.vmdk";
            bool const needsPassword = command == "password";
            ASSERT_EQ(runShell(needsPassword ? encryptedSetUp : setUp).status, 0)
                << readFile("err");
            if (!makesBackup) {
                ASSERT_EQ(runShell("kelm import sdb backup.vmdk").status, 0) << readFile("err");
            }
            if (command == "umount") {
                ASSERT_EQ(runShell("kelm mount backup.vmdk mnt").status, 0) << readFile("err");
            }
            if (command == "child")
                std::filesystem::remove(path("tuesday.vmdk"));
            line = replaceAll(line, "/dev/sdb", "sdb");
            line = replaceAll(line, "40G", "8M");
            line = replaceAll(line, "/backup/", path("backup/"));
            line = replaceAll(line, "/mnt", path("mnt"));
            line =
                replaceAll(line, "--encrypt", "--encrypt --rounds 1000 --password-file password");
            Outcome outcome = runShell(line);
            EXPECT_EQ(outcome.status, 0) << outcome.err;
            while (!takeSummary(outcome.err).empty()) {
                // One for each command of the line.
            }
            EXPECT_EQ(outcome.err, "");
            ++examples;
        }
    }
    EXPECT_GE(examples, static_cast<int>(allCommands().size()));
}

TEST_F(Manual, PageHasEveryCommandAndOption) {
    Outcome const text = runShell("sed 's/\\\\-/-/g' '" KELM_SOURCE_DIR "/tools/kelm/kelm.1'");
    ASSERT_EQ(text.status, 0) << text.err;
    std::set<std::string> const described = optionsIn(text.out);
    for (std::string const& command : allCommands()) {
        EXPECT_NE(text.out.find("\"" + command + " "), std::string::npos) << command;
        for (std::string const& option : optionsIn(runWell({command, "--help"})))
            EXPECT_EQ(described.count(option), 1u) << command << " " << option;
    }
    for (std::string const& option : optionsIn(runWell({"--help"})))
        EXPECT_EQ(described.count(option), 1u) << option;
}

TEST_F(Manual, PageHasEveryExitStatus) {
    Outcome const page = runShell("sed '1,/^.SH \"EXIT STATUS\"/d; /^.SH EXAMPLES/,$d' "
                                  "'" KELM_SOURCE_DIR "/tools/kelm/kelm.1'");
    ASSERT_EQ(page.status, 0) << page.err;
    constexpr int kLastStatus = 10;
    for (int status = 0; status <= kLastStatus; ++status) {
        std::string const entry = ".TP\n.B " + std::to_string(status) + "\n";
        EXPECT_NE(page.out.find(entry), std::string::npos) << status;
    }
}

TEST_F(Manual, ShellCompletesCommandsOptionsAndFiles) {
    makeProgramFolder();
    std::set<std::string> commands(allCommands().begin(), allCommands().end());
    commands.insert({"--help", "--version"});
    EXPECT_EQ(complete({"kelm", ""}), commands);
    EXPECT_EQ(complete({"kelm", "co"}),
              (std::set<std::string>{"compact", "compare", "convert", "copy"}));
    for (std::string const& command : allCommands()) {
        EXPECT_EQ(complete({"kelm", command, "--"}), optionsIn(runWell({command, "--help"})))
            << command;
    }
    EXPECT_EQ(complete({"kelm", "create", "disk.vmdk", "--comp"}),
              (std::set<std::string>{"--compressed"}));
    writeFile("disk one.vmdk", "");
    writeFile("disk.img", "");
    EXPECT_EQ(complete({"kelm", "info", "disk"}),
              (std::set<std::string>{"disk one.vmdk", "disk.img"}));
    EXPECT_EQ(complete({"kelm", "create", "disk.vmdk", "--size", "d"}), std::set<std::string>());
}

TEST_F(Manual, TheOtherShellsKnowEveryCommandAndOption) {
    std::string const folder = KELM_SOURCE_DIR "/tools/kelm/completion/";
    std::string const fish = runShell("cat '" + folder + "kelm.fish'").out;
    std::string const zsh = runShell("cat '" + folder + "_kelm'").out;
    for (std::string const& command : allCommands()) {
        SCOPED_TRACE(command);
        EXPECT_NE(fish.find("-n __fish_use_subcommand -f -a " + command + " -d "),
                  std::string::npos);
        EXPECT_NE(zsh.find("\n        '" + command + ":"), std::string::npos);
        std::set<std::string> const options = optionsOf(command);
        std::set<std::string> offeredByFish;
        std::regex const line("__fish_seen_subcommand_from " + command + "' -l ([a-z-]+) ");
        for (std::sregex_iterator found(fish.begin(), fish.end(), line), end; found != end; ++found)
            offeredByFish.insert("--" + (*found)[1].str());
        EXPECT_EQ(offeredByFish, options);
        std::size_t const start = zsh.find("\n                " + command + ")\n");
        ASSERT_NE(start, std::string::npos);
        std::string const part = zsh.substr(start, zsh.find(";;", start) - start);
        std::set<std::string> offeredByZsh;
        std::regex const entry("'(--[a-z-]+)\\[");
        for (std::sregex_iterator found(part.begin(), part.end(), entry), end; found != end;
             ++found)
            offeredByZsh.insert((*found)[1]);
        EXPECT_EQ(offeredByZsh, options);
    }
}

} // namespace

} // namespace endtoend
