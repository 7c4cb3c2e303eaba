#pragma once

#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace endtoend {

/// The schema in docs/json.md, which says what it knows of JSON Schema.
class JSONSchema {
public:
    /// Reads the page.
    JSONSchema();

    /// The commands that it has.
    std::set<std::string> listCommands() const;

    /// What of the object that a command has printed is not as the schema says, one line for each
    /// thing.
    std::vector<std::string> findViolations(nlohmann::json const& object) const;

    /// The keywords of the schema that the check does not know.
    std::set<std::string> findUnknownKeywords() const;

private:
    using Json = nlohmann::json;
    using Lines = std::vector<std::string>;

    Json resolve(Json const& schema) const;
    void checkValue(Json const& value, Json const& schema, std::string const& place,
                    Lines& found) const;
    void checkObject(Json const& value, Json const& schema, std::string const& place,
                     Lines& found) const;
    void collectKeywords(Json const& schema, std::set<std::string>& keywords) const;

    Json m_schema;
};

} // namespace endtoend
