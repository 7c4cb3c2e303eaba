#include "bench/report/report.h"

#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <fstream>

namespace bench {

bool Aim::isMetBy(double ratio) const {
    // As precise as it is printed.
    double const shown = std::round(ratio * 100) / 100;
    switch (kind) {
    case Kind::AtLeast:
        return shown >= value;
    case Kind::AtMost:
        return shown <= value;
    case Kind::None:
        break;
    }
    return true;
}

std::string Aim::toString() const {
    switch (kind) {
    case Kind::AtLeast:
        return format("≥ %.2f", value);
    case Kind::AtMost:
        return format("≤ %.2f", value);
    case Kind::None:
        break;
    }
    return "";
}

void Report::addHeading(std::string const& text) {
    m_inTable = false;
    m_text += "\n## " + text + "\n\n";
    std::printf("\n%s\n", text.c_str());
}

void Report::addText(std::string const& text) {
    m_text += (m_inTable ? "\n" : "") + text + "\n\n";
    m_inTable = false;
}

void Report::addRow(std::vector<std::string> const& cells) {
    m_text += "|";
    for (std::string const& cell : cells)
        m_text += " " + cell + " |";
    m_text += "\n";
}

void Report::addFigure(Figure const& figure) {
    if (!m_inTable) {
        addRow({"figure", "kelm", "limit", "ratio", "aim", "", "why not"});
        m_text += "|---|---|---|---|---|---|---|\n";
        m_inTable = true;
    }
    bool const met = figure.aim.isMetBy(figure.ratio);
    char const* verdict = "";
    if (figure.aim.kind != Aim::Kind::None) {
        ++m_figures;
        m_misses += met ? 0 : 1;
        verdict = met ? "met" : "**missed**";
    }
    addRow({figure.name, figure.ours, figure.limit, format("%.2f", figure.ratio),
            figure.aim.toString(), verdict, met ? "" : figure.reason});
    std::printf("  %-58s %12s  limit %12s  ratio %6.2f  aim %-8s %s\n", figure.name.c_str(),
                figure.ours.c_str(), figure.limit.c_str(), figure.ratio,
                figure.aim.toString().c_str(), met ? "" : "MISSED");
    std::fflush(stdout);
}

void Report::addTable(std::vector<std::string> const& head,
                      std::vector<std::vector<std::string>> const& rows) {
    m_text += m_inTable ? "\n" : "";
    m_inTable = false;
    addRow(head);
    m_text += "|";
    for (std::size_t i = 0; i < head.size(); ++i)
        m_text += "---|";
    m_text += "\n";
    for (std::vector<std::string> const& row : rows) {
        addRow(row);
        std::string line;
        for (std::string const& cell : row)
            line += "  " + cell;
        std::printf("%s\n", line.c_str());
    }
    m_text += "\n";
    std::fflush(stdout);
}

bool Report::write(std::string const& path) const {
    std::ofstream file(path);
    file << m_text;
    file.close();
    return !file.fail();
}

std::string format(char const* pattern, ...) {
    std::array<char, 512> text{};
    va_list arguments;
    va_start(arguments, pattern);
    std::vsnprintf(text.data(), text.size(), pattern, arguments);
    va_end(arguments);
    return text.data();
}

std::string formatRate(double bytes, double seconds) {
    return format("%.0f MB/s", bytes / seconds / 1e6);
}

std::string formatSeconds(double seconds) {
    if (seconds < 1e-3)
        return format("%.3g µs", seconds * 1e6);
    if (seconds < 1)
        return format("%.3g ms", seconds * 1e3);
    return format("%.3g s", seconds);
}

std::string formatBytes(double bytes) {
    constexpr double kUnit = 1024;
    if (bytes < kUnit)
        return format("%.0f B", bytes);
    if (bytes < kUnit * kUnit)
        return format("%.1f KiB", bytes / kUnit);
    if (bytes < kUnit * kUnit * kUnit)
        return format("%.1f MiB", bytes / kUnit / kUnit);
    return format("%.1f GiB", bytes / kUnit / kUnit / kUnit);
}

} // namespace bench
