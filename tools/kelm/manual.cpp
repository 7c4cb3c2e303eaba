#include "tools/kelm/manual.h"

#include <algorithm>
#include <cctype>
#include <sstream>

#include "tools/kelm/manual_text.h"

namespace kelm::tool {

namespace {

/// A topic and the line of the page with which its section begins.
struct Topic {
    char const* name;
    char const* heading;
};

constexpr Topic kTopics[] = {{"disks", ".SH DESCRIPTION"},
                             {"options", ".SH OPTIONS"},
                             {"passwords", ".SS Passwords"},
                             {"exit-status", ".SH \"EXIT STATUS\""},
                             {"examples", ".SH EXAMPLES"}};

constexpr std::size_t kTextWidth = 78;
constexpr std::size_t kTextIndent = 4;

/// The words of a macro: quotes hold several together.
std::vector<std::string> splitWords(std::string const& line) {
    std::vector<std::string> words;
    bool isQuoted = false;
    bool isInWord = false;
    for (char const letter : line) {
        if (letter == '"') {
            isQuoted = !isQuoted;
            if (isQuoted && !isInWord)
                words.emplace_back();
            isInWord = isQuoted;
        } else if (letter == ' ' && !isQuoted) {
            isInWord = false;
        } else {
            if (!isInWord)
                words.emplace_back();
            isInWord = true;
            words.back() += letter;
        }
    }
    return words;
}

/// Without what the page says about fonts.
std::string withoutEscapes(std::string const& text) {
    std::string plain;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\' || at + 1 == text.size()) {
            plain += text[at];
            continue;
        }
        char const kind = text[++at];
        if (kind == 'f')
            ++at;
        else
            plain += kind == 'e' ? '\\' : kind;
    }
    return plain;
}

/// Turns the macros of the page into lines of text.
class ManualFormatter {
public:
    void add(std::string const& line) {
        if (!line.starts_with('.')) {
            addText(line);
            return;
        }
        std::size_t const end = std::min(line.find(' '), line.size());
        std::string const macro = line.substr(1, end - 1);
        addMacro(macro, splitWords(line.substr(end)));
    }

    std::string finish() {
        endParagraph();
        return m_text;
    }

private:
    void addMacro(std::string const& macro, std::vector<std::string> const& words) {
        if (macro == "SS") {
            beginParagraph(0);
            addText(join(words, " "));
            beginParagraph(0);
        } else if (macro == "PP") {
            beginParagraph(0);
        } else if (macro == "IP") {
            beginParagraph(kTextIndent);
        } else if (macro == "TP") {
            beginParagraph(0);
            m_isTagNext = true;
        } else if (macro == "EX" || macro == "EE") {
            endParagraph();
            m_isFilled = macro == "EE";
        } else if (macro == "RS" || macro == "RE") {
            endParagraph();
            m_indent = macro == "RS" ? kTextIndent : 0;
        } else if (isFont(macro)) {
            addText(join(words, macro.size() == 1 ? " " : ""));
        }
    }

    /// Names of one or two fonts.
    static bool isFont(std::string const& macro) {
        return !macro.empty() && macro.size() <= 2 &&
               macro.find_first_not_of("BIR") == std::string::npos;
    }

    static std::string join(std::vector<std::string> const& words, char const* between) {
        std::string text;
        for (std::string const& word : words)
            text += (text.empty() ? "" : between) + word;
        return text;
    }

    void beginParagraph(std::size_t indent) {
        endParagraph();
        if (!m_text.empty() && !m_text.ends_with("\n\n"))
            m_text += "\n";
        m_indent = indent;
    }

    void addText(std::string const& text) {
        std::string const plain = withoutEscapes(text);
        if (!m_isFilled) {
            m_text += std::string(m_indent, ' ') + plain + "\n";
            return;
        }
        std::istringstream words(plain);
        for (std::string word; words >> word;)
            addWord(word);
        if (m_isTagNext) {
            endParagraph();
            m_indent = kTextIndent;
        }
    }

    void addWord(std::string const& word) {
        if (!m_line.empty() && m_indent + m_line.size() + 1 + word.size() > kTextWidth)
            endLine();
        m_line += (m_line.empty() ? "" : " ") + word;
    }

    void endLine() {
        if (!m_line.empty())
            m_text += std::string(m_indent, ' ') + m_line + "\n";
        m_line.clear();
    }

    void endParagraph() {
        endLine();
        m_isTagNext = false;
    }

    std::string m_text;
    std::string m_line;
    std::size_t m_indent = 0;
    bool m_isFilled = true;
    bool m_isTagNext = false;
};

/// Whether a line begins a section that does not belong to the one that began with `heading`.
bool endsSection(std::string const& line, std::string const& heading) {
    return line.starts_with(".SH") || (heading.starts_with(".SS") && line.starts_with(".SS"));
}

} // namespace

std::vector<std::string> listManualTopics() {
    std::vector<std::string> names;
    for (Topic const& topic : kTopics)
        names.emplace_back(topic.name);
    return names;
}

std::string formatManualTopic(std::string const& topic) {
    auto const* const found = std::find_if(std::begin(kTopics), std::end(kTopics),
                                           [&](Topic const& each) { return topic == each.name; });
    if (found == std::end(kTopics))
        return {};
    std::istringstream page(kManualText);
    ManualFormatter formatter;
    bool isInSection = false;
    for (std::string line; std::getline(page, line);) {
        if (line == found->heading) {
            isInSection = true;
            continue;
        }
        if (isInSection && endsSection(line, found->heading))
            break;
        if (isInSection)
            formatter.add(line);
    }
    return formatter.finish();
}

} // namespace kelm::tool
