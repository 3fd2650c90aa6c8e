// SPDX-License-Identifier: Apache-2.0
// The editor's own list of resolutions, which no row shows.
#include <QLabel>
#include <QTest>

#include "tests/support/messagelog.h"
#include "tests/ui/virtualcamhandler_testing.h"

class ResolutionChooserTest : public QObject {
    Q_OBJECT

private slots:
    void listedResolutions_data();
    void listedResolutions();
    void formerResolutionStays();
    void resolutionIsAnnounced();
    void emptyResolutionDoesNothing();
    void unsupportedResolution();
    void chooserOfResolutionsIsNotConnected();
    void chooserOfResolutionsIsHidden();
};

void ResolutionChooserTest::listedResolutions_data()
{
    QTest::addColumn<QString>("serial");
    QTest::addColumn<QStringList>("texts");
    QTest::newRow("global shutter")
        << "30123456" << QStringList{"1920 x 1200", "1920 x 1080", "960 x 600"};
    QTest::newRow("UHD") << "31000001"
                         << QStringList{"1920 x 1080", "1920 x 1200",     "3200 x 1800",
                                        "3840 x 2160", "1920 x 1200 HDR", "3200 x 1800 HDR"};
    QTest::newRow("unknown") << "29000001" << QStringList();
    QTest::newRow("empty") << "" << QStringList();
}

void ResolutionChooserTest::listedResolutions()
{
    QFETCH(QString, serial);
    QFETCH(QStringList, texts);
    Row row;
    row.editor.updateResolutions(serial, tq::Resolution(), QStringLiteral("tip"));
    QCOMPARE(row.resolutions->toolTip(), QStringLiteral("tip"));
    QCOMPARE(row.resolutions->count(), texts.size());
    for (int i = 0; i < texts.size(); ++i) {
        const QStringList words = texts.at(i).split(QLatin1Char(' '));
        QCOMPARE(row.resolutions->itemText(i), texts.at(i));
        QCOMPARE(row.resolutions->itemData(i).toSize(),
                 QSize(words.at(0).toInt(), words.at(2).toInt()));
    }
}

void ResolutionChooserTest::formerResolutionStays()
{
    Row row;
    row.editor.updateResolutions(QStringLiteral("31000001"), tq::Resolution(), QString());
    row.resolutions->setCurrentIndex(1);
    row.editor.updateResolutions(QStringLiteral("30123456"), tq::Resolution(), QString());
    QCOMPARE(row.resolutions->currentText(), QStringLiteral("1920 x 1200"));
    row.resolutions->setCurrentIndex(1);
    row.editor.updateResolutions(QStringLiteral("30123457"), tq::Resolution(), QString());
    QCOMPARE(row.resolutions->currentText(), QStringLiteral("1920 x 1080"));
    row.resolutions->setCurrentIndex(2);
    row.editor.updateResolutions(QStringLiteral("30123456"), tq::Resolution(960, 600), QString());
    QCOMPARE(row.resolutions->currentIndex(), 0);  // a size was asked for: nothing is restored
    row.resolutions->setCurrentIndex(2);
    row.editor.updateResolutions(QStringLiteral("31000001"), tq::Resolution(), QString());
    QCOMPARE(row.resolutions->currentIndex(), 0);  // no longer offered
}

void ResolutionChooserTest::resolutionIsAnnounced()
{
    Row row;
    row.editor.setSerial(0, 31000001);
    row.editor.updateResolutions(QStringLiteral("31000001"), tq::Resolution(), QString());
    row.resolutions->setCurrentIndex(5);
    row.editor.generateVirtualSN();
    row.editor.UpdateStreamingStatus(true);
    row.disabled.clear();
    QStringList steps;
    connect(&row.editor, &VirtualCamHandler::disableStream, this,
            [&] { steps << "stopped while " + row.stream->text(); });
    connect(&row.editor, &VirtualCamHandler::resolutionChanged, this,
            [&] { steps << "announced"; });
    QVERIFY(QMetaObject::invokeMethod(&row.editor, "onResolutionChanged",
                                      Q_ARG(QString, QStringLiteral("3200 x 1800 HDR"))));
    QCOMPARE(steps, (QStringList{"stopped while Stream", "announced"}));
    QCOMPARE(row.stream->text(), QStringLiteral("Stream"));
    QCOMPARE(row.disabled.count(), 1);
    QCOMPARE(row.disabled.first().first().toULongLong(), row.serial->text().toULongLong());
    QCOMPARE(row.resolutionChanged.count(), 1);
    const QVariantList arguments = row.resolutionChanged.first();
    QCOMPARE(arguments.at(0).value<QList<int>>(), (QList<int>{31000001, 0}));
    QCOMPARE(arguments.at(1).toInt(), 3200);
    QCOMPARE(arguments.at(2).toInt(), 1800);
    QCOMPARE(arguments.at(3).toBool(), true);
    // The text decides about HDR, and its case matters.
    row.editor.onResolutionChanged(QStringLiteral("3200 x 1800 hdr"));
    QCOMPARE(row.resolutionChanged.last().at(3).toBool(), false);
}

void ResolutionChooserTest::emptyResolutionDoesNothing()
{
    MessageLog log;
    Row row;
    row.editor.onResolutionChanged(QString());
    QCOMPARE(row.resolutionChanged.count(), 0);
    QCOMPARE(row.disabled.count(), 0);
    QCOMPARE(log.messages(), QStringList());
}

void ResolutionChooserTest::unsupportedResolution()
{
    Row row;
    row.editor.UpdateStreamingStatus(true);
    const MessageLog log;
    row.editor.onResolutionChanged(QStringLiteral("1 x 1"));
    QCOMPARE(log.debugMessages(QString()), QStringList{"Error: unsupported resolution."});
    QCOMPARE(row.resolutionChanged.count(), 0);
    QCOMPARE(row.disabled.count(), 0);
    QCOMPARE(row.stream->text(), QStringLiteral("Streaming..."));
}

void ResolutionChooserTest::chooserOfResolutionsIsNotConnected()
{
    Row row;
    row.editor.updateResolutions(QStringLiteral("30123456"), tq::Resolution(), QString());
    row.resolutions->setCurrentIndex(1);
    QCOMPARE(row.resolutionChanged.count(), 0);
}

void ResolutionChooserTest::chooserOfResolutionsIsHidden()
{
    Row row;
    row.editor.show();
    QVERIFY(QTest::qWaitForWindowExposed(&row.editor));
    QVERIFY(!row.resolutions->isVisible());
    QVERIFY(row.part<QLabel>("resolutionTitle")->isVisible());
}

QTEST_MAIN(ResolutionChooserTest)
#include "resolutionchooser_test.moc"
