#include "tests/support/holding_store.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "yx/error.h"

namespace test_support {

namespace {

using kelm::host::HeldFile;
using kelm::host::StoreHolder;

/// What a line says.
struct HolderLine {
    StoreHolder holder;
    std::string name;
    HeldFile file;
};

StoreHolder::Life toLife(std::string const& word) {
    if (word == "lives")
        return StoreHolder::Life::LivesHere;
    return word == "died" ? StoreHolder::Life::DiedHere : StoreHolder::Life::Unknown;
}

HolderLine parseLine(std::string const& text) {
    std::istringstream words(text);
    HolderLine line;
    std::string life;
    words >> line.holder.number >> line.holder.host >> line.holder.user >> line.holder.process >>
        life >> line.name;
    line.holder.life = toLife(life);
    for (std::string what; words >> what;) {
        line.file.isOpen = line.file.isOpen || what == "open" || what == "write";
        line.file.isOpenForWriting = line.file.isOpenForWriting || what == "write";
        line.file.mayHaveChanges = line.file.mayHaveChanges || what == "changes";
    }
    return line;
}

/// Whether it has ended, but for being waited for: its first thread is a zombie and the others, which
/// share its files, are gone.
bool holdsNothing(std::string const& process) {
    std::ifstream status(process + "/stat");
    std::string line;
    if (!std::getline(status, line))
        return true;
    std::error_code gone;
    std::filesystem::directory_iterator const threads(process + "/task", gone);
    return line.find(") Z ") != std::string::npos && (gone || std::distance(threads, {}) <= 1);
}

/// Ends a process by SIGKILL, and waits until it holds nothing.
void endProcess(pid_t process) {
    ::kill(process, SIGKILL);
    while (!holdsNothing("/proc/" + std::to_string(process)))
        std::this_thread::yield();
}

} // namespace

std::vector<std::string> HoldingStore::readLines(yx::CURI const& uri) const {
    std::vector<std::string> lines;
    std::ifstream list(m_list);
    for (std::string line; std::getline(list, line);) {
        if (line == "denied") {
            throw yx::CIOError(yx::CIOError::AccessDenied, "Ask somebody else.",
                               yx::CProps().add("uri", uri.toString(true)), nullptr);
        }
        lines.push_back(line);
    }
    return lines;
}

std::vector<StoreHolder> HoldingStore::findHolders(std::vector<yx::CURI> const& files) {
    std::vector<StoreHolder> holders;
    for (std::string const& text : readLines(files.front())) {
        HolderLine line = parseLine(text);
        auto const asked = std::find_if(files.begin(), files.end(), [&](yx::CURI const& file) {
            return file.getPath().toStdString() == "/" + line.name;
        });
        if (asked == files.end())
            continue;
        line.file.uri = *asked;
        auto known = std::find_if(holders.begin(), holders.end(), [&](StoreHolder const& holder) {
            return holder.number == line.holder.number;
        });
        if (known == holders.end())
            known = holders.insert(known, line.holder);
        known->files.push_back(line.file);
    }
    return holders;
}

void HoldingStore::shutOut(yx::CURI const& uri, std::string const& number) {
    std::string left;
    for (std::string const& text : readLines(uri)) {
        HolderLine const line = parseLine(text);
        if (line.holder.number != number)
            left += text + "\n";
        else if (line.holder.process != "0")
            endProcess(std::stoi(line.holder.process));
    }
    std::ofstream(m_list) << left;
}

} // namespace test_support
