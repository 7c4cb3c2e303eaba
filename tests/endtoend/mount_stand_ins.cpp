#include "tests/endtoend/mount_stand_ins.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace endtoend {

namespace {

constexpr char kBegin[] = "#!/bin/sh\n"
                          "name=${0##*/}\n"
                          "echo \"$name $*\" >> \"$STANDINS/calls\"\n"
                          "case \" $STANDINS_FAIL \" in\n"
                          "*\" $name-stuck \"*)\n"
                          "    echo \"$name\" > \"$STANDINS/stuck\"\n"
                          "    read word < \"$STANDINS/release\" ;;\n"
                          "*\" $name \"*)\n"
                          "    echo \"$name: no, said $name\" >&2\n"
                          "    exit 32 ;;\n"
                          "esac\n";

constexpr char kNbdkit[] = "for word in \"$@\"; do\n"
                           "    case $word in\n"
                           "    *password=-*)\n"
                           "        read secret < /proc/self/fd/${word##*-}\n"
                           "        echo \"${word%%=*} is $secret\" >> \"$STANDINS/calls\" ;;\n"
                           "    esac\n"
                           "done\n";

// It holds what it has inherited, as the real one does. The pipe for its end is open both ways from
// the start, so that it misses no word, and whoever sends one waits for nobody.
constexpr char kNbdfuse[] = "exec 5<> \"$STANDINS/end\"\n"
                            "while [ $# -gt 0 ]; do\n"
                            "    case $1 in\n"
                            "    -P) ready=$2; shift 2 ;;\n"
                            "    --command) shift; break ;;\n"
                            "    -*) shift ;;\n"
                            "    *) point=$1; shift ;;\n"
                            "    esac\n"
                            "done\n"
                            "\"$@\" 5<&- || exit 1\n"
                            "trap 'rm -f \"$point/nbd\"; exit 0' TERM\n"
                            "echo disk > \"$point/nbd\"\n"
                            "echo $$ > \"$ready\"\n"
                            "read word <&5\n";

constexpr char kMount[] = "for folder in \"$@\"; do :; done\n"
                          "mv \"$folder\" \"$folder.bare\" && mkdir \"$folder\"\n"
                          "echo file > \"$folder/file\"\n";

constexpr char kUmount[] = "case $1 in\n"
                           "*/image)\n"
                           "    if [ ! -e \"$1/nbd\" ]; then\n"
                           "        echo \"umount: $1: not mounted.\" >&2\n"
                           "        exit 32\n"
                           "    fi\n"
                           "    rm \"$1/nbd\"\n"
                           "    echo end 1<> \"$STANDINS/end\" ;;\n"
                           "*)\n"
                           "    case \" $STANDINS_FAIL \" in *\" busy \"*)\n"
                           "        echo \"umount: $1: target is busy.\" >&2\n"
                           "        exit 32 ;;\n"
                           "    esac\n"
                           "    rm -r \"$1\" && mv \"$1.bare\" \"$1\" ;;\n"
                           "esac\n";

std::string readWhole(std::filesystem::path const& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

} // namespace

MountStandIns::MountStandIns(std::filesystem::path const& folder) : m_folder(folder) {
    namespace fs = std::filesystem;
    fs::create_directories(m_folder / "stand-ins");
    fs::create_directories(m_folder / "run");
    for (char const* const name : {"end", "stuck", "release"})
        ::mkfifo((m_folder / name).c_str(), 0600);
    for (auto const& [name, text] : {std::pair{"nbdkit", kNbdkit},
                                     {"nbdfuse", kNbdfuse},
                                     {"mount", kMount},
                                     {"umount", kUmount}}) {
        fs::path const file = m_folder / "stand-ins" / name;
        std::ofstream(file) << kBegin << text;
        fs::permissions(file, fs::perms::owner_all);
    }
    char const* const path = std::getenv("PATH");
    char const* const runtime = std::getenv("XDG_RUNTIME_DIR");
    m_formerPath = path != nullptr ? path : "";
    m_hadRuntime = runtime != nullptr;
    m_formerRuntime = m_hadRuntime ? runtime : "";
    ::setenv("PATH", ((m_folder / "stand-ins").string() + ":" + m_formerPath).c_str(), 1);
    ::setenv("XDG_RUNTIME_DIR", (m_folder / "run").c_str(), 1);
    ::setenv("STANDINS", m_folder.c_str(), 1);
    fail("");
}

MountStandIns::~MountStandIns() {
    ::setenv("PATH", m_formerPath.c_str(), 1);
    if (m_hadRuntime)
        ::setenv("XDG_RUNTIME_DIR", m_formerRuntime.c_str(), 1);
    else
        ::unsetenv("XDG_RUNTIME_DIR");
    ::unsetenv("STANDINS");
    ::unsetenv("STANDINS_FAIL");
}

void MountStandIns::fail(std::string const& names) {
    ::setenv("STANDINS_FAIL", names.c_str(), 1);
}

std::string MountStandIns::waitForStuck() const {
    std::ifstream stream(m_folder / "stuck");
    std::string name;
    std::getline(stream, name);
    return name;
}

void MountStandIns::release() const {
    std::ofstream(m_folder / "release") << "go\n";
}

std::string MountStandIns::takeCalls() const {
    std::string calls = readWhole(m_folder / "calls");
    std::filesystem::remove(m_folder / "calls");
    std::string const folder = m_folder.string();
    for (std::size_t at = calls.find(folder); at != std::string::npos; at = calls.find(folder))
        calls.replace(at, folder.size(), "@");
    return std::regex_replace(calls, std::regex("@/run/kelm/mount-[0-9a-f]{16}"), "@/record");
}

bool MountStandIns::isClean() const {
    return std::filesystem::is_empty(m_folder / "run");
}

void MountStandIns::remove(std::string const& program) const {
    std::filesystem::remove(m_folder / "stand-ins" / program);
}

} // namespace endtoend
