#include "tests/endtoend/json_schema.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace endtoend {

namespace {

using Json = nlohmann::json;

std::string const& pageText() {
    static std::string const kText = [] {
        std::ifstream stream(KELM_SOURCE_DIR "/docs/json.md");
        std::ostringstream text;
        text << stream.rdbuf();
        return text.str();
    }();
    return kText;
}

bool isOfType(Json const& value, std::string const& type) {
    if (type == "object")
        return value.is_object();
    if (type == "array")
        return value.is_array();
    if (type == "string")
        return value.is_string();
    if (type == "boolean")
        return value.is_boolean();
    if (type == "integer")
        return value.is_number_integer();
    if (type == "number")
        return value.is_number();
    if (type == "null")
        return value.is_null();
    throw std::runtime_error("The schema has a type that nothing has: " + type);
}

bool isOfTypes(Json const& value, Json const& types) {
    if (types.is_string())
        return isOfType(value, types.get<std::string>());
    return std::any_of(types.begin(), types.end(),
                       [&](Json const& type) { return isOfType(value, type.get<std::string>()); });
}

bool contains(Json const& list, Json const& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

/// Adds the members of one schema of an object to those of another.
void join(Json& schema, Json const& other) {
    Json const properties = other.value("properties", Json::object());
    for (auto const& [name, member] : properties.items())
        schema["properties"][name] = member;
    for (Json const& name : other.value("required", Json::array()))
        schema["required"].push_back(name);
}

} // namespace

JSONSchema::JSONSchema() {
    std::string const mark = "```json\n";
    std::size_t const start = pageText().find(mark);
    if (start == std::string::npos)
        throw std::runtime_error("docs/json.md has no schema.");
    std::size_t const end = pageText().find("\n```", start + mark.size());
    m_schema = Json::parse(pageText().substr(start + mark.size(), end - start - mark.size()));
}

std::set<std::string> JSONSchema::listCommands() const {
    std::set<std::string> names;
    for (auto const& [name, schema] : m_schema.at("commands").items())
        names.insert(name);
    return names;
}

/// The schema that a reference, or a list of references, leads to.
nlohmann::json JSONSchema::resolve(Json const& schema) const {
    if (!schema.contains("$ref"))
        return schema;
    Json const& names = schema["$ref"];
    if (names.is_string())
        return m_schema.at("$defs").at(names.get<std::string>());
    Json joined = Json::object();
    for (Json const& name : names)
        join(joined, m_schema.at("$defs").at(name.get<std::string>()));
    return joined;
}

void JSONSchema::checkObject(Json const& value, Json const& schema, std::string const& place,
                             Lines& found) const {
    Json const properties = schema.value("properties", Json::object());
    for (auto const& [name, member] : value.items()) {
        std::string const memberPlace = place + "/" + name;
        if (properties.contains(name))
            checkValue(member, properties[name], memberPlace, found);
        else if (schema.contains("additionalProperties"))
            checkValue(member, schema["additionalProperties"], memberPlace, found);
        else
            found.push_back(memberPlace + ": not in the schema");
    }
    for (Json const& name : schema.value("required", Json::array())) {
        if (!value.contains(name.get<std::string>()))
            found.push_back(place + ": lacks " + name.get<std::string>());
    }
}

void JSONSchema::checkValue(Json const& value, Json const& reference, std::string const& place,
                            Lines& found) const {
    Json const schema = resolve(reference);
    if (!isOfTypes(value, schema.at("type"))) {
        found.push_back(place + ": not of type " + schema["type"].dump() + ": " + value.dump());
        return;
    }
    if (schema.contains("enum") && !contains(schema["enum"], value))
        found.push_back(place + ": not one of " + schema["enum"].dump() + ": " + value.dump());
    if (value.is_object())
        checkObject(value, schema, place, found);
    if (!value.is_array())
        return;
    for (std::size_t i = 0; i < value.size(); ++i)
        checkValue(value[i], schema.at("items"), place + "/" + std::to_string(i), found);
}

std::vector<std::string> JSONSchema::findViolations(Json const& object) const {
    Lines found;
    if (!object.is_object())
        return {"not an object: " + object.dump()};
    std::string const command = object.value("command", "");
    Json schema = m_schema.at("ofEveryCommand");
    if (m_schema.at("commands").contains(command)) {
        Json own = resolve(m_schema["commands"][command]);
        if (object.contains("error"))
            own.erase("required");
        join(schema, own);
    } else {
        found.push_back("no such command: " + command);
    }
    checkObject(object, schema, "", found);
    return found;
}

void JSONSchema::collectKeywords(Json const& schema, std::set<std::string>& keywords) const {
    for (auto const& [name, value] : schema.items()) {
        keywords.insert(name);
        if (name == "properties") {
            for (auto const& [member, ofMember] : value.items())
                collectKeywords(ofMember, keywords);
        } else if (name == "items" || name == "additionalProperties") {
            collectKeywords(value, keywords);
        }
    }
}

std::set<std::string> JSONSchema::findUnknownKeywords() const {
    std::set<std::string> keywords;
    collectKeywords(m_schema.at("ofEveryCommand"), keywords);
    for (char const* const group : {"$defs", "commands"}) {
        for (auto const& [name, schema] : m_schema.at(group).items())
            collectKeywords(schema, keywords);
    }
    for (char const* const known : {"type", "properties", "required", "enum", "items",
                                    "additionalProperties", "$ref", "description"})
        keywords.erase(known);
    return keywords;
}

} // namespace endtoend
