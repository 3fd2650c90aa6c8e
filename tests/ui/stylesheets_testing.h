// SPDX-License-Identifier: Apache-2.0
// What the tests of the style sheets share: all sheets by name, each with a control to show it on.
#pragma once

#include <QString>
#include <QWidget>
#include <functional>
#include <vector>

#include "ui/style.h"

namespace sheettest {

using Sheet = QString Style::*;
using Factory = std::function<QWidget*()>;

template <typename Widget>
Factory make()
{
    return [] { return new Widget; };
}

/// A tab widget with two tabs.
QWidget* makeTabs();

struct Entry {
    const char* name;
    Sheet sheet;
    Factory factory;
};

/// Every sheet.
const std::vector<Entry>& entries();

/// A row of test data for each sheet: "index" is its place in entries().
void addRows(const std::function<bool(const Entry&)>& wanted = {});

/// A template with its places filled.
QString filled(const char* name, const QString& sheet);

/// Pixels that differ from a colour by no more than @p tolerance in each channel.
int pixelsOfColor(const QImage& image, const QColor& color, int tolerance);

}  // namespace sheettest
