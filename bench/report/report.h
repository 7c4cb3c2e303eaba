#pragma once

#include <string>
#include <vector>

namespace bench {

/// What a ratio should reach, or should not exceed.
struct Aim {
    enum class Kind { None, AtLeast, AtMost };

    static Aim none() { return {Kind::None, 0}; }
    static Aim atLeast(double value) { return {Kind::AtLeast, value}; }
    static Aim atMost(double value) { return {Kind::AtMost, value}; }

    bool isMetBy(double ratio) const;
    std::string toString() const;

    Kind kind;
    double value;
};

/// One line of a table: a figure, the limit that was measured beside it, and their ratio.
struct Figure {
    std::string name;
    std::string ours;
    std::string limit;
    double ratio;
    Aim aim;

    /// Why the aim can be missed; shown only if it is.
    std::string reason;
};

/// Collects results as Markdown, and prints each line to standard output as it comes.
class Report {
public:
    void addHeading(std::string const& text);
    void addText(std::string const& text);

    /// Lines that follow each other form one table.
    void addFigure(Figure const& figure);

    /// A table of numbers that have no limit.
    void addTable(std::vector<std::string> const& head,
                  std::vector<std::vector<std::string>> const& rows);

    /// Whether the file could be written.
    bool write(std::string const& path) const;

    int getFigureCount() const { return m_figures; }
    int getMissCount() const { return m_misses; }

private:
    void addRow(std::vector<std::string> const& cells);

    std::string m_text;
    bool m_inTable = false;
    int m_figures = 0;
    int m_misses = 0;
};

/// printf into a string.
[[gnu::format(printf, 1, 2)]] std::string format(char const* pattern, ...);

/// "812 MB/s" of that many bytes in that time.
std::string formatRate(double bytes, double seconds);

/// "12.3 ms", in the unit that suits.
std::string formatSeconds(double seconds);

/// "1.5 MiB", in the unit that suits.
std::string formatBytes(double bytes);

} // namespace bench
