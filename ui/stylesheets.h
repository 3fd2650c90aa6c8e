// SPDX-License-Identifier: Apache-2.0
// Style sheets of the desktop interface: the fragments that they are made of.
#pragma once

#include <QString>
#include <vector>

class Style;

/// One sheet and the member of Style that shows it.
struct StyleSheet {
    QString Style::*member;
    QString text;
};

/// All sheets. They are built at the first call, with the fonts of that instance, and shared from
/// then on: all instances are equal. GUI thread.
const std::vector<StyleSheet>& sharedStyleSheets(const Style& style);
