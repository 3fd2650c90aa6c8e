// SPDX-License-Identifier: Apache-2.0
// The catalogue of capture resolutions.
#include <QtTest>

#include "capture/Camera.h"

namespace {

QString text(const std::vector<CameraResolutionDefinition>& entries)
{
    QStringList words;
    for (const CameraResolutionDefinition& entry : entries) {
        words << QStringLiteral("%1x%2(%3)")
                     .arg(entry.width)
                     .arg(entry.height)
                     .arg(static_cast<int>(entry.hdr));
    }
    return words.join(QLatin1Char(' '));
}

const QString kUhd =
    QStringLiteral("1920x1080(0) 1920x1200(0) 3200x1800(0) 3840x2160(0) 1920x1200(1) 3200x1800(1)");
const QString kGs = QStringLiteral("1920x1200(0) 1920x1080(0) 960x600(0)");

}  // namespace

class ResolutionsTest : public QObject {
    Q_OBJECT

private slots:
    void byModel_data()
    {
        QTest::addColumn<int>("model");
        QTest::addColumn<QString>("expected");
        QTest::newRow("UHD") << 31 << kUhd;
        QTest::newRow("GS") << 30 << kGs;
        for (const int other : {0, 4, 5, 29, 32, -1}) {
            QTest::addRow("other %d", other) << other << QString();
        }
    }
    void byModel()
    {
        QFETCH(int, model);
        QFETCH(QString, expected);
        QCOMPARE(text(KTCamera::getAvailableResolutions(static_cast<tq::MODEL>(model))), expected);
    }

    void bySerial_data()
    {
        QTest::addColumn<QString>("serial");
        QTest::addColumn<QString>("expected");
        QTest::newRow("UHD serial") << "31234567" << kUhd;
        QTest::newRow("GS serial") << "30123456" << kGs;
        QTest::newRow("just 31") << "31" << kUhd;
        QTest::newRow("just 30") << "30" << kGs;
        QTest::newRow("not a number behind") << "30 anything" << kGs;
        QTest::newRow("empty") << ""
                               << "";
        QTest::newRow("one digit") << "3"
                                   << "";
        QTest::newRow("other prefix") << "32000000"
                                      << "";
        QTest::newRow("prefix further on") << "1300"
                                           << "";
        QTest::newRow("blank first") << " 31"
                                     << "";
        QTest::newRow("name") << "KOR T Solo GS"
                              << "";
    }
    void bySerial()
    {
        QFETCH(QString, serial);
        QFETCH(QString, expected);
        QCOMPARE(text(KTCamera::getAvailableResolutions(serial)), expected);
    }
};

QTEST_GUILESS_MAIN(ResolutionsTest)
#include "resolutions_test.moc"
