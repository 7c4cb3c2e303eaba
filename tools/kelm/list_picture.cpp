#include "tools/kelm/list_picture.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>

#include "host/system/name_text.h"
#include "host/system/size_text.h"
#include "host/system/time_text.h"
#include "tools/kelm/svg.h"

namespace kelm::tool {

namespace {

constexpr int kPictureWidth = 960;
constexpr int kPictureMargin = 24;
constexpr int kNameWidth = 220;
constexpr int kLanesTop = 84;
constexpr int kLaneHeight = 34;
constexpr double kMinLineWidth = 2;
constexpr double kMaxLineWidth = 22;

constexpr std::time_t kSecondsPerDay = 86400;

// Colours that people with any kind of colour vision can distinguish, on light and on dark.
constexpr char kStyle[] = "<style>\n"
                          "svg{background:#ffffff;font-family:sans-serif}\n"
                          "text{fill:#1c2329}\n"
                          ".faint{fill:#5c6670}\n"
                          ".axis{stroke:#c3c9cf}\n"
                          ".good{stroke:#0072b2;fill:#0072b2}\n"
                          ".open{stroke:#e69f00;fill:#e69f00}\n"
                          ".bad{stroke:#d55e00;fill:#d55e00}\n"
                          "@media (prefers-color-scheme:dark){\n"
                          "svg{background:#14181c}\n"
                          "text{fill:#e6e9ec}\n"
                          ".faint{fill:#9aa4ae}\n"
                          ".axis{stroke:#3a424a}\n"
                          ".good{stroke:#56b4e9;fill:#56b4e9}\n"
                          "}\n"
                          "</style>\n";

char const* classOf(host::BackupState state) {
    switch (state) {
    case host::BackupState::Complete:
        return "good";
    case host::BackupState::Unfinished:
        return "open";
    default:
        return "bad";
    }
}

/// What a colour says.
struct Meaning {
    char const* colour;
    char const* words;
};

// From right to left.
constexpr Meaning kMeanings[] = {
    {"bad", "cannot be restored"}, {"open", "unfinished"}, {"good", "complete"}};
constexpr int kLegendWidth = 140;

/// Where a disk stands.
struct Place {
    std::time_t time = 0;
    int lane = 0;
    bool beginsLane = false;
};

class Drawing {
public:
    explicit Drawing(std::vector<host::BackupDisk> const& disks)
        : m_disks(disks), m_places(disks.size()) {
        placeInTime();
        placeInLanes();
        for (host::BackupDisk const& disk : disks) {
            m_maxOwnBytes = std::max(m_maxOwnBytes, disk.ownBytes);
            m_totalBytes += disk.ownBytes;
        }
    }

    std::string draw() const {
        int const height = kLanesTop + m_laneCount * kLaneHeight + kPictureMargin;
        std::string text = "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" viewBox=\"0 0 " +
                           std::to_string(kPictureWidth) + " " + std::to_string(height) +
                           "\" width=\"" + std::to_string(kPictureWidth) + "\" height=\"" +
                           std::to_string(height) + "\">\n<title>Backups</title>\n" + kStyle;
        text += svg::label(kPictureMargin, 34, 20,
                           std::to_string(m_disks.size()) + " disks, " +
                               host::formatSize(m_totalBytes));
        text += drawLegend();
        text += drawAxis(height);
        for (std::size_t i = 0; i < m_disks.size(); ++i)
            text += drawLine(i);
        for (std::size_t i = 0; i < m_disks.size(); ++i)
            text += drawDisk(i);
        return text + "</svg>\n";
    }

private:
    void placeInTime() {
        std::optional<std::time_t> first;
        for (host::BackupDisk const& disk : m_disks) {
            std::optional<std::time_t> const time = host::parseTime(disk.time);
            if (time && (!first || *time < *first))
                first = time;
        }
        m_firstTime = m_lastTime = first.value_or(0);
        for (std::size_t i = 0; i < m_disks.size(); ++i) {
            std::time_t const unknown = m_disks[i].parent
                                            ? m_places[*m_disks[i].parent].time + kSecondsPerDay
                                            : m_firstTime;
            m_places[i].time = host::parseTime(m_disks[i].time).value_or(unknown);
            m_firstTime = std::min(m_firstTime, m_places[i].time);
            m_lastTime = std::max(m_lastTime, m_places[i].time);
        }
    }

    void placeInLanes() {
        std::vector<bool> isContinued(m_disks.size());
        for (std::size_t i = 0; i < m_disks.size(); ++i) {
            std::optional<std::size_t> const parent = m_disks[i].parent;
            m_places[i].beginsLane = !parent || isContinued[*parent];
            m_places[i].lane = m_places[i].beginsLane ? m_laneCount++ : m_places[*parent].lane;
            if (parent)
                isContinued[*parent] = true;
        }
    }

    double xOf(std::size_t index) const {
        double const width = kPictureWidth - 2 * kPictureMargin - kNameWidth;
        double const span = static_cast<double>(std::max<std::time_t>(m_lastTime - m_firstTime, 1));
        return kPictureMargin + kNameWidth +
               static_cast<double>(m_places[index].time - m_firstTime) / span * width;
    }

    int yOf(std::size_t index) const {
        return kLanesTop + m_places[index].lane * kLaneHeight + kLaneHeight / 2;
    }

    /// In proportion to the data, where the widest fills its lane.
    double lineWidthOf(std::size_t index) const {
        double const share = static_cast<double>(m_disks[index].ownBytes) /
                             static_cast<double>(std::max<__int64>(m_maxOwnBytes, 1));
        return std::max(kMinLineWidth, share * kMaxLineWidth);
    }

    /// What the colours that occur mean, at the right of the title.
    std::string drawLegend() const {
        std::string text;
        double x = kPictureWidth - kPictureMargin;
        for (Meaning const& meaning : kMeanings) {
            if (std::none_of(m_disks.begin(), m_disks.end(), [&](host::BackupDisk const& disk) {
                    return classOf(disk.state) == std::string_view(meaning.colour);
                }))
                continue;
            x -= kLegendWidth;
            text += std::string("<rect class=\"") + meaning.colour + "\" x=\"" + svg::number(x) +
                    "\" y=\"24\" width=\"10\" height=\"10\"/>\n" +
                    drawText(x + 16, 33, meaning.words, "start");
        }
        return text;
    }

    std::string drawAxis(int height) const {
        std::string text;
        for (auto const& [time, x] : {std::pair{m_firstTime, xAt(0)}, {m_lastTime, xAt(1)}}) {
            text += "<line class=\"axis\" x1=\"" + svg::number(x) + "\" y1=\"" +
                    std::to_string(kLanesTop - 8) + "\" x2=\"" + svg::number(x) + "\" y2=\"" +
                    std::to_string(height - kPictureMargin) + "\"/>\n";
            if (time != 0)
                text += drawText(x, kLanesTop - 14, host::formatTime(time).substr(0, kDateLength),
                                 2 * x < kPictureWidth ? "start" : "end");
        }
        return text;
    }

    static double xAt(int end) {
        return end == 0 ? kPictureMargin + kNameWidth : kPictureWidth - kPictureMargin;
    }

    static std::string drawText(double x, int y, std::string const& text, char const* anchor) {
        return "<text class=\"faint\" x=\"" + svg::number(x) + "\" y=\"" + std::to_string(y) +
               "\" font-size=\"12\" text-anchor=\"" + anchor + "\">" + svg::escape(text) +
               "</text>\n";
    }

    std::string drawLine(std::size_t index) const {
        if (!m_disks[index].parent)
            return "";
        std::size_t const parent = *m_disks[index].parent;
        return std::string("<path class=\"") + classOf(m_disks[index].state) +
               "\" style=\"fill:none\" stroke-width=\"" + svg::number(lineWidthOf(index)) +
               "\" stroke-opacity=\"0.55\" d=\"M" + svg::number(xOf(parent)) + " " +
               std::to_string(yOf(parent)) + "V" + std::to_string(yOf(index)) + "H" +
               svg::number(xOf(index)) + "\"/>\n";
    }

    std::string drawDisk(std::size_t index) const {
        host::BackupDisk const& disk = m_disks[index];
        std::string const name = host::printable(disk.mainFile.getName().toStdString());
        double const height = disk.parent ? kMinLineWidth * 5 : std::max(10.0, lineWidthOf(index));
        std::string text =
            std::string("<rect class=\"") + classOf(disk.state) + "\" x=\"" +
            svg::number(xOf(index) - 1.5) + "\" y=\"" + svg::number(yOf(index) - height / 2) +
            "\" width=\"3\" height=\"" + svg::number(height) + "\"><title>" +
            svg::escape(name + ", " + host::formatSize(disk.ownBytes) + ", " + nameOf(disk.state)) +
            "</title></rect>\n";
        if (m_places[index].beginsLane)
            text += drawText(kPictureMargin, yOf(index) + 4, shorten(name), "start");
        return text;
    }

    /// A name that fits beside its lane. Cuts no character in two.
    static std::string shorten(std::string const& name) {
        constexpr std::size_t kMaxBytes = 30;
        if (name.size() <= kMaxBytes)
            return name;
        std::size_t end = kMaxBytes;
        while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80)
            --end;
        return name.substr(0, end) + "...";
    }

    static constexpr std::size_t kDateLength = sizeof "2031-05-04" - 1;

    std::vector<host::BackupDisk> const& m_disks;
    std::vector<Place> m_places;
    int m_laneCount = 0;
    std::time_t m_firstTime = 0;
    std::time_t m_lastTime = 0;
    __int64 m_maxOwnBytes = 0;
    __int64 m_totalBytes = 0;
};

} // namespace

std::string drawBackups(std::vector<host::BackupDisk> const& disks) {
    return Drawing(disks).draw();
}

} // namespace kelm::tool
