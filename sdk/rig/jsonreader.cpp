// SPDX-License-Identifier: Apache-2.0
// Reading of JSON members, and the words in which they are refused.
#include "sdk/rig/jsonreader.h"

#include <algorithm>
#include <cstdint>
#include <sstream>

namespace tq::rig {

namespace {

std::string range(double least, double most)
{
    std::ostringstream text;
    text.precision(12);
    text << "must be from " << least << " to " << most;
    return text.str();
}

std::string wrongType(const char* wanted, const json& given)
{
    return std::string("must be ") + wanted + ", but is " + given.type_name();
}

std::string position(const std::string& text, std::size_t byte)
{
    const std::string before = text.substr(0, byte == 0 ? 0 : byte - 1);
    const auto line = 1 + std::count(before.begin(), before.end(), '\n');
    const std::size_t column = before.size() - (before.rfind('\n') + 1) + 1;  // npos + 1 is 0
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

}  // namespace

std::string quoted(const std::string& text)
{
    return json(text).dump(-1, ' ', true, json::error_handler_t::replace);
}

json readDocument(const std::string& text)
{
    // The parser keeps the last of several equal keys; here they are a mistake.
    std::vector<std::set<std::string>> open;
    const json::parser_callback_t refuseRepeatedKeys = [&open](int, json::parse_event_t event,
                                                               json& parsed) {
        if (event == json::parse_event_t::object_start) {
            open.emplace_back();
        } else if (event == json::parse_event_t::object_end) {
            open.pop_back();
        } else if (event == json::parse_event_t::key &&
                   !open.back().insert(parsed.get<std::string>()).second) {
            throw Refusal("", "key " + quoted(parsed.get<std::string>()) + " is repeated");
        }
        return true;
    };
    try {
        return json::parse(text, refuseRepeatedKeys);
    } catch (const json::parse_error& error) {
        throw Refusal("", "not valid JSON at " + position(text, error.byte));
    } catch (const json::exception&) {
        throw Refusal("", "not valid JSON");
    }
}

Members::Members(const json& jsonObject, std::string objectPath)
    : object(jsonObject), path(std::move(objectPath))
{
    if (!object.is_object()) {
        throw Refusal(path, wrongType("an object", object));
    }
}

std::string Members::key(const std::string& name) const
{
    return path.empty() ? name : path + "." + name;
}

const json* Members::find(const std::string& name)
{
    known.insert(name);
    const auto found = object.find(name);
    return found == object.end() ? nullptr : &*found;
}

const json& Members::require(const std::string& name)
{
    return *value(name, false);
}

const json* Members::value(const std::string& name, bool optional)
{
    const json* member = find(name);
    if (member == nullptr && !optional) {
        throw Refusal(key(name), "is missing");
    }
    return member;
}

std::string Members::text(const std::string& name, const std::optional<std::string>& fallback)
{
    const json* member = value(name, fallback.has_value());
    if (member == nullptr) {
        return *fallback;
    }
    if (!member->is_string()) {
        throw Refusal(key(name), wrongType("a string", *member));
    }
    auto text = member->get<std::string>();
    if (text.find('\0') != std::string::npos) {
        throw Refusal(key(name), "contains a zero character");
    }
    return text;
}

int Members::integer(const std::string& name, int least, int most, std::optional<int> fallback)
{
    const json* member = value(name, fallback.has_value());
    if (member == nullptr) {
        return *fallback;
    }
    if (!member->is_number_integer()) {
        throw Refusal(key(name), member->is_number() ? "must be a whole number"
                                                     : wrongType("a number", *member));
    }
    const bool tooLarge = member->is_number_unsigned() &&
                          member->get<std::uint64_t>() > static_cast<std::uint64_t>(most);
    const auto given = member->get<std::int64_t>();
    if (tooLarge || given < least || given > most) {
        throw Refusal(key(name), range(least, most));
    }
    return static_cast<int>(given);
}

double Members::real(const std::string& name, double least, double most,
                     std::optional<double> fallback)
{
    const json* member = value(name, fallback.has_value());
    if (member == nullptr) {
        return *fallback;
    }
    if (!member->is_number()) {
        throw Refusal(key(name), wrongType("a number", *member));
    }
    const auto given = member->get<double>();
    if (!(given >= least && given <= most)) {
        throw Refusal(key(name), range(least, most));
    }
    return given;
}

bool Members::truth(const std::string& name, bool fallback)
{
    const json* member = value(name, true);
    if (member == nullptr) {
        return fallback;
    }
    if (!member->is_boolean()) {
        throw Refusal(key(name), wrongType("a boolean", *member));
    }
    return member->get<bool>();
}

void Members::finish() const
{
    for (const auto& member : object.items()) {
        if (known.count(member.key()) == 0) {
            const std::string shown = quoted(member.key());
            throw Refusal(key(shown.substr(1, shown.size() - 2)), "unknown key");
        }
    }
}

}  // namespace tq::rig
