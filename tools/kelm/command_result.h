#pragma once

#include <chrono>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "tools/kelm/exit_status.h"

namespace kelm::tool {

/// How much a command says to people.
enum class Words {
    Errors, ///< nothing else
    Usual,
    All ///< also what the work was based on
};

/// What a command says about its work: lines for people, or with "--json" one JSON object for
/// programs, which docs/json.md describes. A command gives both, and here is decided which of them
/// is printed. The object ends the output, also when the command fails.
class CommandResult {
public:
    using Json = nlohmann::ordered_json;

    CommandResult();
    CommandResult(CommandResult const&) = delete;
    CommandResult& operator=(CommandResult const&) = delete;
    ~CommandResult();

    /// Which command it is; `arguments` is an object with the files and folders that it was given.
    void begin(std::string const& command, Json const& arguments);

    /// The object is asked for.
    void useJSON() { m_isJSON = true; }
    bool isJSON() const { return m_isJSON; }

    /// Standard output has an image or a picture: the object becomes the last line of standard
    /// error.
    void leaveStandardOutput() { m_isLine = true; }

    void setWords(Words words) { m_words = words; }
    Words getWords() const { return m_words; }

    /// Prints lines for people, unless the object is asked for, or nothing but errors. Errors are
    /// those of `kelm::tool::print`.
    void print(std::string const& text) const;

    /// Says on standard error what the work is based on, in a line, if all is to be said.
    void explain(std::string const& text) const;

    /// Says at the end how long the work took and what was done, in two lines on standard error,
    /// unless only errors are to be said or the result is an object. The second line has the members of the object for
    /// what was read, stored and skipped, and for what became of zeros.
    void summarize() const;

    /// Adds members to the object, or replaces them.
    void add(Json const& members);

    /// Prints the object as far as it is known, and begins a member of it that is an array too long
    /// to be kept. Nothing if the object is not asked for. Other members can be added all the time.
    void beginList(std::string const& name);

    /// Prints the next element, a JSON text in one line.
    void addToList(std::string const& element);

    /// A warning, in one line that is safe to print, which goes to standard error too unless only
    /// errors do.
    void addWarning(std::string const& text);

    /// The command ends by this error.
    void setError(std::exception const& error);

    /// The same for a command line that makes no sense.
    void setWrongUsage(std::string const& message);

    /// Ends the object, if one is asked for, and writes out all that has been printed.
    void finish(ExitStatus status);

private:
    void endMembers(ExitStatus status);
    void printLine() const;

    bool m_isJSON = false;
    bool m_isLine = false;
    Words m_words = Words::Usual;
    std::string m_command;

    /// The array that has been begun is part of the output, and has elements or none.
    enum class List { None, Empty, Filled };
    List m_list = List::None;
    std::string m_listName;

    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();

    // Behind pointers, since all commands include this.
    std::unique_ptr<Json> m_members;
    std::unique_ptr<Json> m_error;
    std::vector<std::string> m_warnings;
};

} // namespace kelm::tool
