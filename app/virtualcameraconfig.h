// SPDX-License-Identifier: Apache-2.0
// The configuration file that holds the set of virtual cameras.
#pragma once

#include <QList>
#include <QString>
#include <nlohmann/json.hpp>

#include "capture/VirtualCameraInfos.h"

/// Where the configuration is stored.
constexpr char kVirtualCameraConfigPath[] = "/usr/local/kor/settings/virtual_tsolo_config.json";

/// Reads one member of the configuration object.
/// @param member iterator into the document's top-level value
/// @throws nlohmann::json::exception when the top level is no object, a key is missing or a value
///         has the wrong type
/// @throws std::out_of_range for a floating-point number that does not fit 32 bits
VirtualCameraInfos parseConfig(const nlohmann::json::const_iterator& member);

/// Reads the whole configuration file, members in ascending key order. One that cannot be read, is
/// no regular file or has more than 16 MB gets a line in the log and is taken as empty.
/// @throws what parseConfig() throws, and nlohmann::json::exception when the file is not JSON
QList<VirtualCameraInfos> readVirtualCameraConfig(const QString& path);

/// Turns records into the document that is stored: one line, keys in ascending byte order, no
/// blanks, without the line end. Of two records with the same virtual serial the later one wins.
std::string serializeVirtualCameraConfig(const QList<VirtualCameraInfos>& records);

/// Replaces the file by these records: whenever the process ends, it is the former or the new one.
/// Complete when this returns.
/// @return why nothing was written; empty on success
QString writeVirtualCameraConfig(const QString& path, const QList<VirtualCameraInfos>& records);
