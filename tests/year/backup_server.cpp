#include "tests/year/backup_server.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <optional>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/backups/disk_parts.h"
#include "host/disk/chain_keys.h"
#include "host/disk/disk_record.h"
#include "host/store/file_names.h"
#include "tests/support/folder_cut.h"
#include "tests/support/log_capture.h"
#include "tests/support/safe_disks.h"

namespace year_test {

namespace {

namespace fs = std::filesystem;

using kelm::host::SafeDisk;
using nlohmann::json;

// The rules.
constexpr int kDaily = 7;
constexpr int kWeekly = 4;
constexpr int kMonthly = 6;

constexpr char kIsGone[] = "The disk does not exist.";

/// The first night, of Wednesday, 1 January 2031.
constexpr std::chrono::sys_days kFirstNight{std::chrono::year{2031} / 1 / 1};

std::chrono::sys_days nightOf(int day) {
    return kFirstNight + std::chrono::days(day);
}

/// Weeks begin on Monday; the first day of 1970 was a Thursday.
int weekOf(int day) {
    constexpr int kDaysFromMonday = 3;
    return static_cast<int>((nightOf(day).time_since_epoch().count() + kDaysFromMonday) / 7);
}

int monthOf(int day) {
    std::chrono::year_month_day const date(nightOf(day));
    return static_cast<int>(date.year()) * 12 +
           static_cast<int>(static_cast<unsigned>(date.month()));
}

std::string readFile(fs::path const& file) {
    return test_support::toText(test_support::readFileContent(file));
}

void writeFile(fs::path const& file, std::string const& bytes) {
    std::ofstream(file, std::ios::binary) << bytes;
}

/// Turns all bits of a sector.
void spoilSector(fs::path const& file, std::size_t sector) {
    std::string bytes = readFile(file);
    for (std::size_t i = sector * kSectorBytes; i < (sector + 1) * kSectorBytes; ++i)
        bytes[i] = static_cast<char>(~bytes[i]);
    std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
    stream << bytes;
}

/// The first sector of the grain directory.
std::size_t directorySectorOf(std::string const& extent) {
    constexpr std::size_t kDirectoryField = 56;
    return static_cast<unsigned char>(extent[kDirectoryField]) +
           256u * static_cast<unsigned char>(extent[kDirectoryField + 1]);
}

} // namespace

BackupServer::BackupServer(ServerKind const& kind, std::mt19937& random)
    : m_kind(kind),
      m_random(random),
      m_folder(m_root.path() / "backup"),
      m_aside(m_root.path() / "aside"),
      m_tool(m_folder, m_aside, random),
      m_image(random) {
    fs::create_directories(m_folder / m_disks);
    fs::create_directories(m_folder / "offsite");
    fs::create_directories(m_aside);
    writeFile(m_root.path() / "password", m_password + "\n");
    m_tool.setLook([this] { expectSomeDaysAreReadable(); });
}

yx::CURI BackupServer::uri(std::string const& file) const {
    return kelm::host::uriFromArgument(path(file));
}

Arguments BackupServer::withPassword(Arguments const& arguments) const {
    if (!m_kind.isEncrypted)
        return arguments;
    return joined({arguments, {"--password-file", (m_root.path() / "password").string()}});
}

std::string BackupServer::diskName(std::string const& suffix) const {
    std::string const number = std::to_string(m_today);
    return m_disks + "/day" + std::string(4 - number.size(), '0') + number + suffix + ".vmdk";
}

Task BackupServer::importTask(std::string const& file, Arguments const& options) const {
    Arguments const command =
        withPassword({"import", (m_root.path() / "server.img").string(), file});
    Arguments const fresh = joined({command, options});
    return {fresh,
            {joined({command, {"--resume"}}), fresh, joined({fresh, {"--force"}})},
            {"The disk is complete; there is nothing to resume."}};
}

void BackupServer::liveADay() {
    ++m_today;
    SCOPED_TRACE("day " + std::to_string(m_today));
    m_tool.setTime(std::chrono::system_clock::to_time_t(nightOf(m_today) + std::chrono::hours(2)));
    m_image.liveADay();
    writeFile(m_root.path() / "server.img", m_image.getBytes());
    std::string const file = diskName("");
    Arguments options{"--label", "day " + std::to_string(m_today)};
    if (m_days.empty()) {
        options = joined({options, m_kind.full});
    } else {
        std::size_t const turn = static_cast<std::size_t>(m_today) % m_kind.children.size();
        options =
            joined({options, m_kind.children[turn], {"--parent", m_days.rbegin()->second.file}});
    }
    m_tool.doTask(importTask(file, options));
    removeFormer(file);
    m_days[m_today] = {digestOf(m_image.getBytes()), file};
    expectReadable(m_today);
    expectNothingUnexplained(true);
}

std::set<int> BackupServer::daysByRules() const {
    std::set<int> kept;
    struct Rule {
        int count;
        int (*periodOf)(int day);
    };
    for (Rule const& rule : {Rule{kDaily, [](int day) { return day; }}, Rule{kWeekly, weekOf},
                             Rule{kMonthly, monthOf}}) {
        std::set<int> periods;
        for (auto day = m_days.rbegin(); day != m_days.rend(); ++day) {
            if (static_cast<int>(periods.size()) < rule.count &&
                periods.insert(rule.periodOf(day->first)).second)
                kept.insert(day->first);
        }
    }
    return kept;
}

void BackupServer::prune() {
    SCOPED_TRACE("prune on day " + std::to_string(m_today));
    std::set<int> const kept = daysByRules();
    std::vector<std::string> gone;
    for (auto day = m_days.begin(); day != m_days.end();) {
        if (kept.count(day->first) == 0) {
            gone.push_back(day->second.file);
            day = m_days.erase(day);
        } else {
            ++day;
        }
    }
    m_tool.doTask(
        {withPassword({"prune", m_disks, "--keep-daily", std::to_string(kDaily), "--keep-weekly",
                       std::to_string(kWeekly), "--keep-monthly", std::to_string(kMonthly)})});
    for (std::string const& file : gone)
        EXPECT_FALSE(fs::exists(m_folder / file)) << file;
    expectKeptDaysAreReadable();
    expectNothingUnexplained(true);
}

void BackupServer::doNextChore() {
    static constexpr void (BackupServer::*kChores[])() = {
        &BackupServer::copyADay,       &BackupServer::renameADay,  &BackupServer::dropADay,
        &BackupServer::mergeDays,      &BackupServer::rebaseADay,  &BackupServer::convertADay,
        &BackupServer::digestADay,     &BackupServer::flattenADay, &BackupServer::deleteADay,
        &BackupServer::loseTableSector};
    (this->*kChores[m_nextChore++ % std::size(kChores)])();
    expectSomeDaysAreReadable();
    expectNothingUnexplained(true);
}

int BackupServer::drawDay(bool mayBeNewest) {
    std::size_t const count = m_days.size() - (mayBeNewest ? 0 : 1);
    return std::next(m_days.begin(), static_cast<std::ptrdiff_t>(m_random() % count))->first;
}

std::string BackupServer::parentOf(std::string const& file) const {
    yx::CURI const parent = kelm::host::readDiskParts(m_files.get(), uri(file)).parentFile;
    if (parent.isEmpty())
        return "";
    return fs::path(yx::toNativePath(parent).toStdString()).lexically_relative(m_folder).string();
}

std::vector<int> BackupServer::childrenOf(std::string const& file) const {
    std::vector<int> children;
    for (auto const& [number, day] : m_days) {
        if (parentOf(day.file) == file)
            children.push_back(number);
    }
    return children;
}

bool BackupServer::dependsOn(std::string file, std::string const& parent) const {
    while (!file.empty() && file != parent)
        file = parentOf(file);
    return !file.empty();
}

void BackupServer::removeFormer(std::string const& file) const {
    std::string const name = fs::path(file).filename().string() + ".former";
    for (fs::directory_entry const& entry :
         fs::directory_iterator((m_folder / file).parent_path())) {
        if (entry.path().filename().string().starts_with(name))
            fs::remove_all(entry.path());
    }
}

void BackupServer::deleteDisk(std::string const& file) {
    m_tool.doTask({{"delete", file}, {}, {kIsGone}});
}

void BackupServer::copyADay() {
    Day const day = m_days[drawDay(true)];
    std::string const copy = "offsite/copy.vmdk";
    m_tool.doTask({{"copy", day.file, copy}, {}, {"The file exists already."}});
    expectHolds(copy, day.digest);
    deleteDisk(copy);
}

void BackupServer::renameADay() {
    Day& day = m_days[drawDay(true)];
    // Now shorter, now longer than before.
    std::string const name = m_names % 2 == 0 ? "n" : "a-rather-long-name-of-a-renamed-disk-";
    day.nextFile = m_disks + "/" + name + std::to_string(++m_names) + ".vmdk";
    m_tool.doTask({{"rename", day.file, day.nextFile}, {}, {kIsGone}});
    EXPECT_FALSE(fs::exists(m_folder / day.file));
    day.file = day.nextFile;
    day.nextFile = "";
}

void BackupServer::dropADay() {
    if (m_days.size() < 4)
        return;
    int const number = drawDay(false);
    std::string const file = m_days[number].file;
    m_days.erase(number);
    m_tool.doTask({withPassword({"drop", file, "--look", m_disks}), {}, {kIsGone}});
    EXPECT_FALSE(fs::exists(m_folder / file));
}

void BackupServer::mergeDays() {
    Day& last = m_days[drawDay(true)];
    std::string first = last.file;
    for (auto links = m_random() % 3; links > 0 && !parentOf(first).empty(); --links)
        first = parentOf(first);
    std::string const merged = m_disks + "/merged" + std::to_string(++m_names) + ".vmdk";
    Arguments options = m_kind.children.front();
    if (parentOf(first).empty())
        options = m_kind.full;
    Arguments const command = withPassword(joined({{"merge", first, last.file, merged}, options}));
    m_tool.doTask({command, {command, joined({command, {"--force"}})}});
    removeFormer(merged);
    expectHolds(merged, last.digest);
    for (int const child : childrenOf(last.file))
        m_tool.doTask({withPassword({"rebase", m_days[child].file, "--parent", merged})});
    std::string const former = last.file;
    last.file = merged;
    m_tool.doTask({withPassword({"drop", former, "--look", m_disks}), {}, {kIsGone}});
    EXPECT_FALSE(fs::exists(m_folder / former));
}

void BackupServer::rebaseADay() {
    std::string const child = m_days[drawDay(true)].file;
    std::string const parent = m_days[drawDay(true)].file;
    if (parentOf(child).empty() || dependsOn(parent, child))
        return;
    m_tool.doTask({withPassword({"rebase", child, "--parent", parent})});
    EXPECT_EQ(parent, parentOf(child));
}

void BackupServer::flattenADay() {
    std::string const file = m_days[drawDay(true)].file;
    if (parentOf(file).empty())
        return;
    m_tool.doTask({withPassword({"flatten", file}), {}, {"The disk has no parent: "}});
    EXPECT_EQ("", parentOf(file));
}

void BackupServer::convertADay() {
    Day const day = m_days[drawDay(true)];
    std::string const file = "offsite/converted.vmdk";
    std::vector<Arguments> const kinds{{"--compressed"},
                                       {"--split", "4M"},
                                       {"--parent", m_days[drawDay(true)].file},
                                       {"--split", "3M", "--on-demand"}};
    Arguments const command =
        withPassword(joined({{"convert", day.file, file}, kinds[m_random() % kinds.size()]}));
    m_tool.doTask({command, {command, joined({command, {"--force"}})}});
    removeFormer(file);
    expectHolds(file, day.digest);
    deleteDisk(file);
}

void BackupServer::deleteADay() {
    if (m_days.size() < 4)
        return;
    int const number = drawDay(false);
    std::string const file = m_days[number].file;
    m_days.erase(number);
    m_tool.doTask(
        {withPassword({"delete", file, "--keep-children", "--look", m_disks}), {}, {kIsGone}});
    EXPECT_FALSE(fs::exists(m_folder / file));
}

void BackupServer::digestADay() {
    Day const& day = m_days[drawDay(true)];
    m_tool.doTask({withPassword({"digest", day.file, "--force", "--image-digest"})});
    Outcome const printed = m_tool.run(withPassword({"digest", day.file, "--print"}));
    EXPECT_EQ(0, printed.status) << printed.err;
    EXPECT_EQ(day.digest, printed.out.substr(0, day.digest.size()));
    Outcome const checked = m_tool.run(withPassword({"check", day.file, "--own", "--digests"}));
    EXPECT_EQ(0, checked.status) << checked.out << checked.err;
}

void BackupServer::loseDataSector() {
    Day& day = m_days.rbegin()->second;
    // What was done with it today may have cost it its digests, without which nobody would notice.
    if (m_tool.run(withPassword({"check", day.file, "--own", "--digests"})).status != 0)
        m_tool.doTask({withPassword({"digest", day.file, "--force"})});
    std::string const copy = "offsite/spare.vmdk";
    m_tool.doTask({{"copy", day.file, copy}, {}, {"The file exists already."}});
    // Of the longest of its files, as far behind as can be, where there are grains.
    kelm::host::DiskParts const parts = kelm::host::readDiskParts(m_files.get(), uri(day.file));
    fs::path file = m_folder / day.file;
    for (yx::CURI const& extent : parts.extentFiles) {
        fs::path const candidate = yx::toNativePath(extent).toStdString();
        if (fs::exists(candidate) && fs::file_size(candidate) >= fs::file_size(file))
            file = candidate;
    }
    // What a kill has left dead is nobody's loss.
    std::size_t sector = fs::file_size(file) / kSectorBytes;
    day.isDamaged = true;
    while (readDigest(day.file) == day.digest && sector > 0) {
        --sector;
        spoilSector(file, sector);
        if (readDigest(day.file) == day.digest)
            spoilSector(file, sector);
    }
    Outcome const checked = m_tool.run(withPassword({"check", day.file}));
    EXPECT_NE(0, checked.status) << "sector " << sector << " of " << file;
    EXPECT_NE("", checked.out);
    deleteDisk(day.file);
    std::string const place = day.file;
    day.file = copy;
    day.nextFile = place;
    day.isDamaged = false;
    m_tool.doTask({{"rename", copy, place}, {}, {kIsGone}});
    day.file = place;
    day.nextFile = "";
    Outcome const restored = m_tool.run(withPassword({"check", day.file}));
    EXPECT_EQ(0, restored.status) << restored.out << restored.err;
    expectKeptDaysAreReadable();
    expectNothingUnexplained(true);
}

void BackupServer::loseTableSector() {
    int const number = drawDay(true);
    kelm::host::DiskParts const parts =
        kelm::host::readDiskParts(m_files.get(), uri(m_days[number].file));
    std::string const mainFile = path(m_days[number].file);
    std::string const file = parts.extentFiles.empty()
                                 ? mainFile
                                 : yx::toNativePath(parts.extentFiles.front()).toStdString();
    for (auto& [other, day] : m_days)
        day.isDamaged = dependsOn(day.file, m_days[number].file);
    spoilSector(file, directorySectorOf(readFile(file)));
    Outcome const checked = m_tool.run(withPassword({"check", m_days[number].file}));
    EXPECT_NE(0, checked.status) << checked.out;
    m_tool.doTask({withPassword({"repair", m_days[number].file})});
    for (auto& [other, day] : m_days)
        day.isDamaged = false;
    Outcome const mended = m_tool.run(withPassword({"check", m_days[number].file}));
    EXPECT_EQ(0, mended.status) << mended.out << mended.err;
    EXPECT_TRUE(fs::remove(mainFile + ".repaired"));
}

void BackupServer::changePassword() {
    SCOPED_TRACE("password on day " + std::to_string(m_today));
    m_formerPassword = m_password;
    m_password = "battery staple";
    fs::path const former = m_root.path() / "former-password";
    writeFile(former, m_formerPassword + "\n");
    writeFile(m_root.path() / "password", m_password + "\n");
    std::string const newFile = (m_root.path() / "password").string();
    auto const change = [&](std::string const& file) {
        m_tool.doTask(
            {{"password", file, "--chain", "--rounds", "1000", "--password-file", former.string(),
              "--parent-password-file", newFile, "--new-password-file", newFile, "--look", m_disks},
             {},
             {"Specified VMDK encryption password is not correct."}});
    };
    change(m_days.rbegin()->second.file);
    // Those that the newest does not need.
    for (auto const& [number, day] : m_days) {
        Outcome const info = m_tool.run(withPassword({"info", day.file}));
        if (info.status == 4)
            change(day.file);
    }
    m_formerPassword = "";
    expectKeptDaysAreReadable();
    expectNothingUnexplained(true);
}

void BackupServer::moveFolder() {
    SCOPED_TRACE("move on day " + std::to_string(m_today));
    Day const day = m_days[drawDay(true)];
    std::string const child = "offsite/child.vmdk";
    Arguments const command =
        withPassword({"convert", day.file, child, "--parent", m_days.rbegin()->second.file});
    m_tool.doTask({command, {command, joined({command, {"--force"}})}});
    removeFormer(child);
    fs::rename(m_folder / m_disks, m_folder / "vault");
    for (auto& [number, each] : m_days)
        each.file.replace(0, m_disks.size(), "vault");
    m_disks = "vault";
    EXPECT_EQ(8, m_tool.run(withPassword({"export", child, "-"})).status);
    m_tool.doTask(
        {withPassword({"rebase", child, "--trust", "--parent", m_days.rbegin()->second.file})});
    expectHolds(child, day.digest);
    deleteDisk(child);
    expectKeptDaysAreReadable();
    expectNothingUnexplained(true);
}

std::string BackupServer::readDigest(std::string const& file) const {
    test_support::LogCapture const quiet;
    yx::String const password = yx::String::fromUTF8(m_kind.isEncrypted ? m_password : "");
    yx::String const former = yx::String::fromUTF8(m_formerPassword);
    std::string words;
    for (auto const& [first, other] : {std::pair(password, former), std::pair(former, password)}) {
        try {
            kelm::host::DerivedKeys keys;
            if (!m_formerPassword.empty())
                kelm::host::deriveKeysOfChain(m_files.get(), uri(file), {first, other}, keys, 1);
            SafeDisk disk(m_files.get(), uri(file), yx::IIOStream::ReadOnly, first);
            // Finding the exact size as exports do takes longer than reading.
            std::optional<__int64> const length =
                kelm::host::DiskRecord(*disk.getDisk().getDescriptor())
                    .getImageBytes(disk.getSizeBytes());
            std::string bytes(static_cast<std::size_t>(length.value_or(0)), '\0');
            disk.read(0, bytes.data(), static_cast<int>(bytes.size()));
            return digestOf(bytes);
        } catch (yx::CError const& error) {
            words += error.getMessage().toStdString() + "\n";
        }
    }
    return words;
}

void BackupServer::expectReadable(int number) {
    Day const& day = m_days[number];
    if (day.isDamaged)
        return;
    std::string words;
    for (std::string const& file : {day.file, day.nextFile}) {
        if (file.empty() || !fs::exists(m_folder / file))
            continue;
        std::string const found = readDigest(file);
        if (found == day.digest)
            return;
        words.append(file).append(": ").append(found).append("\n");
    }
    ADD_FAILURE() << "day " << number << " cannot be read: " << words;
}

void BackupServer::expectSomeDaysAreReadable() {
    constexpr int kDaysToRead = 4;
    for (int i = 0; i < kDaysToRead && !m_days.empty(); ++i)
        expectReadable(drawDay(true));
}

void BackupServer::expectKeptDaysAreReadable() {
    for (auto const& [number, day] : m_days)
        expectReadable(number);
}

void BackupServer::expectHolds(std::string const& file, std::string const& digest) {
    EXPECT_EQ(digest, readDigest(file)) << file;
}

void BackupServer::expectNothingUnexplained(bool mayHaveLocks) {
    std::set<std::string> explained;
    for (auto const& [number, day] : m_days) {
        kelm::host::DiskParts const parts = kelm::host::readDiskParts(m_files.get(), uri(day.file));
        for (yx::CURI const& file : parts.listPresentFiles(m_files.get()))
            explained.insert(fs::path(yx::toNativePath(file).toStdString())
                                 .lexically_relative(m_folder)
                                 .string());
    }
    for (fs::directory_entry const& entry : fs::recursive_directory_iterator(m_folder)) {
        std::string const name = entry.path().lexically_relative(m_folder).string();
        if (mayHaveLocks && name.ends_with(".lock"))
            continue;
        if (entry.is_regular_file())
            EXPECT_EQ(1U, explained.count(name)) << name << " is a file of nothing";
        else
            EXPECT_TRUE(name == m_disks || name == "offsite") << name;
    }
}

void BackupServer::expectAllIsWell() {
    // Takes the lock files away that kills have left of disks that are gone.
    Outcome const pruned =
        m_tool.run(withPassword({"prune", m_disks, "offsite", "--keep-daily", "1000"}));
    EXPECT_EQ(0, pruned.status) << pruned.err;
    for (auto const& [number, day] : m_days) {
        Outcome const exported = m_tool.run(withPassword({"export", day.file, "-"}));
        EXPECT_EQ(0, exported.status) << exported.err;
        EXPECT_EQ(day.digest, digestOf(exported.out)) << day.file;
        Outcome const checked = m_tool.run(withPassword({"check", day.file}));
        EXPECT_EQ(0, checked.status) << checked.out << checked.err;
    }
    Outcome const listed = m_tool.run({"list", m_disks, "--json"});
    EXPECT_EQ(0, listed.status) << listed.err;
    json const disks = json::parse(listed.out)["disks"];
    EXPECT_EQ(m_days.size(), disks.size());
    std::set<std::string> labels;
    for (json const& disk : disks) {
        EXPECT_EQ("complete", disk["state"]) << disk;
        labels.insert(disk["label"].get<std::string>());
    }
    for (auto const& [number, day] : m_days)
        EXPECT_EQ(1U, labels.count("day " + std::to_string(number))) << number;
    expectNothingUnexplained(false);
}

} // namespace year_test
