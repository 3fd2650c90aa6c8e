// SPDX-License-Identifier: Apache-2.0
// What the tests of the editor of one virtual camera share.
#pragma once

#include "ui/virtualcamhandler.h"

#include <QComboBox>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QSpinBox>

inline const QStringList kSerials{"30123456", "30123457", "31000001", "31000002"};

// An editor with its parts at hand.
struct Row {
    explicit Row(const QString& uuid = QStringLiteral("{row}")) : editor(uuid, nullptr)
    {
        editor.updateSerials(kSerials);
    }

    template <typename Widget>
    Widget* part(const char* name) const
    {
        return editor.findChild<Widget*>(QLatin1String(name));
    }

    VirtualCamHandler editor;
    QComboBox* left = part<QComboBox>("LeftSensorSNChoice");
    QComboBox* right = part<QComboBox>("RightSensorSNChoice");
    QComboBox* resolutions = part<QComboBox>("resolutionComboBox");
    QLineEdit* serial = part<QLineEdit>("VirtualCamSNEdit");
    QSpinBox* port = part<QSpinBox>("RTPPortChoice");
    QPushButton* generate = part<QPushButton>("VirtualSNGenerateButton");
    QPushButton* stream = part<QPushButton>("TestButton");
    QPushButton* remove = part<QPushButton>("RemoveButton");
    QSignalSpy removed{&editor, &VirtualCamHandler::remove};
    QSignalSpy activated{&editor, &VirtualCamHandler::activateStream};
    QSignalSpy disabled{&editor, &VirtualCamHandler::disableStream};
    QSignalSpy resolutionChanged{&editor, &VirtualCamHandler::resolutionChanged};
};
