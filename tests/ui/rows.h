// SPDX-License-Identifier: Apache-2.0
// The rows of the main window, as an operator sees them.
#pragma once

#include <QLayout>
#include <QList>

#include "ui/mainwindow.h"

/// The rows of virtual cameras from top to bottom.
inline QList<VirtualCamHandler*> rowsOf(const MainWindow& window)
{
    QList<VirtualCamHandler*> rows;
    const auto* const layout =
        window.findChild<QLayout*>(QStringLiteral("scrollAreaWidgetContentsVerticalLayout"));
    for (int i = 0; i < layout->count(); ++i) {
        if (auto* const row = qobject_cast<VirtualCamHandler*>(layout->itemAt(i)->widget())) {
            rows.append(row);
        }
    }
    return rows;
}
