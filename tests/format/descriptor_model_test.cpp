// Random edits of a descriptor against a plain list of lines. KELM_MODEL_ROUNDS multiplies the
// number of histories.

#include <cctype>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kelm/format/descriptor.h"
#include "tests/support/bytes.h"
#include "tests/support/model_rounds.h"

namespace {

using kelm::CVMDKDescriptor;
using kelm::CVMDKExtentInfo;

struct Line {
    enum class Kind { Value, Extent, Verbatim };

    Kind kind;
    std::string key;
    std::string value;
    bool isQuoted = false;

    /// As a file has it; `value` is the whole line where there is no key.
    std::string text() const {
        if (kind != Kind::Value)
            return value;
        std::string const quote = isQuoted ? "\"" : "";
        return key + (key.starts_with("ddb.") ? " = " : "=") + quote + value + quote;
    }
};

std::string lowerCase(std::string text) {
    for (char& character : text)
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    return text;
}

class Model {
public:
    void read(std::vector<Line> lines) {
        m_lines = std::move(lines);
        findHeaderEnd();
    }

    Line* find(std::string const& key) {
        for (Line& line : m_lines) {
            if (line.kind == Line::Kind::Value && lowerCase(line.key) == lowerCase(key))
                return &line;
        }
        return nullptr;
    }

    void set(std::string const& key, std::string const& value, bool isQuoted, bool inHeader) {
        if (Line* const line = find(key))
            line->value = value;
        else
            add({Line::Kind::Value, key, value, isQuoted}, inHeader);
    }

    void add(Line const& line, bool inHeader) {
        if (inHeader)
            m_lines.insert(m_lines.begin() + m_headerEnd++, line);
        else
            m_lines.push_back(line);
    }

    bool remove(std::string const& key) {
        bool const has = find(key) != nullptr;
        while (Line* const line = find(key))
            m_lines.erase(m_lines.begin() + (line - m_lines.data()));
        if (has)
            findHeaderEnd();
        return has;
    }

    std::string text() const {
        std::string text;
        for (Line const& line : m_lines)
            text += line.text() + "\n";
        return text;
    }

    int countExtents() const {
        int count = 0;
        for (Line const& line : m_lines)
            count += line.kind == Line::Kind::Extent ? 1 : 0;
        return count;
    }

private:
    void findHeaderEnd() {
        m_headerEnd = 0;
        for (std::size_t i = 0; i < m_lines.size() && m_lines[i].kind != Line::Kind::Extent; ++i) {
            if (m_lines[i].kind == Line::Kind::Value)
                m_headerEnd = static_cast<std::ptrdiff_t>(i) + 1;
        }
    }

    std::vector<Line> m_lines;
    std::ptrdiff_t m_headerEnd = 0;
};

class History {
public:
    explicit History(unsigned int seed) : m_random(seed) {}

    void run() {
        readAnew(randomLines());
        for (int i = 0; i < 60 && !testing::Test::HasFailure(); ++i) {
            SCOPED_TRACE("edit " + std::to_string(i));
            step();
            compare();
        }
    }

private:
    int pick(int count) { return std::uniform_int_distribution<int>(0, count - 1)(m_random); }

    std::string pickKey() {
        static char const* const kKeys[] = {
            "CID", "cid", "version", "ddb.a", "DDB.a", "ddb.adapterType", "other", "Other"};
        return kKeys[pick(8)];
    }

    Line randomLine() {
        switch (pick(5)) {
        case 0:
            return {Line::Kind::Extent, "",
                    "RW " + std::to_string(pick(100)) + " SPARSE \"e.vmdk\""};
        case 1:
            return {Line::Kind::Verbatim, "", "# comment " + std::to_string(pick(100))};
        default:
            return {Line::Kind::Value, pickKey(), std::to_string(pick(100)), pick(2) == 0};
        }
    }

    std::vector<Line> randomLines() {
        std::vector<Line> lines;
        for (int count = pick(12); count > 0; --count)
            lines.push_back(randomLine());
        return lines;
    }

    void readAnew(std::vector<Line> const& lines) {
        m_model.read(lines);
        m_descriptor =
            CVMDKDescriptor(test_support::toBuffer(test_support::fromText(m_model.text())));
    }

    void step() {
        std::string const key = pickKey();
        bool const inHeader = pick(2) == 0;
        switch (pick(8)) {
        case 0:
        case 1:
        case 2: {
            std::string const value = std::to_string(pick(1000));
            bool const isQuoted = pick(2) == 0;
            m_descriptor.setValue(yx::String::fromUTF8(key), yx::String::fromUTF8(value), isQuoted,
                                  inHeader);
            m_model.set(key, value, isQuoted, inHeader);
            break;
        }
        case 3:
        case 4:
            EXPECT_EQ(m_descriptor.removeValue(yx::String::fromUTF8(key)), m_model.remove(key));
            break;
        case 5:
            m_descriptor.addGenericLine("# new", inHeader);
            m_model.add({Line::Kind::Verbatim, "", "# new"}, inHeader);
            break;
        case 6:
            m_descriptor.addExtentEntry(
                yx::makeObject<CVMDKExtentInfo>("RW", 7, "SPARSE", "new.vmdk", -1).get());
            m_model.add({Line::Kind::Extent, "", "RW 7 SPARSE \"new.vmdk\""}, false);
            break;
        default: {
            CVMDKDescriptor const copy(m_descriptor);
            m_descriptor = CVMDKDescriptor();
            m_descriptor = copy;
            break;
        }
        }
    }

    void compare() {
        EXPECT_EQ(m_descriptor.toString().toStdString(), m_model.text());
        std::string const key = pickKey();
        yx::String value;
        bool const has = m_descriptor.tryGetValue(yx::String::fromUTF8(key), value);
        Line const* const line = m_model.find(key);
        EXPECT_EQ(has, line != nullptr);
        EXPECT_EQ(value.toStdString(), line ? line->value : "");
        yx::TArray<yx::P<CVMDKExtentInfo>> extents;
        m_descriptor.getExtentEntries(extents);
        EXPECT_EQ(extents.getSize(), m_model.countExtents());
    }

    std::mt19937 m_random;
    Model m_model;
    CVMDKDescriptor m_descriptor;
};

TEST(DescriptorModel, RandomEditsActAsOnAListOfLines) {
    unsigned int const histories = 300 * test_support::modelRounds();
    for (unsigned int seed = 1; seed <= histories && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        History(seed).run();
    }
}

} // namespace
