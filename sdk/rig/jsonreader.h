// SPDX-License-Identifier: Apache-2.0
// Strict reading of JSON: what is not understood is refused, with the key and the reason.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tq::rig {

using nlohmann::json;

/// Why a document is refused: "key: reason".
class Refusal : public std::runtime_error {
public:
    Refusal(const std::string& key, const std::string& reason)
        : std::runtime_error((key.empty() ? "document" : key) + ": " + reason)
    {
    }
};

/// Text in quotation marks; control characters and broken UTF-8 cannot spoil the log line.
std::string quoted(const std::string& text);

/// Parses a whole document; repeated keys are refused.
json readDocument(const std::string& text);

/// The members of one JSON object; remembers which were asked for. What is asked for without a
/// fallback must be there.
class Members {
public:
    /// @param objectPath key of the object, empty for the document
    Members(const json& object, std::string objectPath);

    /// The key of a member, for refusals.
    std::string key(const std::string& name) const;

    /// The member, or null when it is absent.
    const json* find(const std::string& name);
    const json& require(const std::string& name);

    std::string text(const std::string& name, const std::optional<std::string>& fallback = {});
    int integer(const std::string& name, int least, int most, std::optional<int> fallback = {});
    double real(const std::string& name, double least, double most,
                std::optional<double> fallback = {});
    bool truth(const std::string& name, bool fallback);

    /// What a word stands for.
    template <typename T>
    T word(const std::string& name, const std::vector<std::pair<std::string, T>>& meanings,
           const std::optional<std::string>& fallback = {})
    {
        const std::string given = text(name, fallback);
        std::string list;
        for (const auto& [allowed, meaning] : meanings) {
            if (allowed == given) {
                return meaning;
            }
            list += (list.empty() ? "" : ", ") + quoted(allowed);
        }
        throw Refusal(key(name), "unknown value " + quoted(given) + ", must be one of " + list);
    }

    /// Refuses members that nobody asked for.
    void finish() const;

private:
    const json* value(const std::string& name, bool optional);

    const json& object;
    const std::string path;
    std::set<std::string> known;
};

}  // namespace tq::rig
