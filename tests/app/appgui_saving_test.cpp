// SPDX-License-Identifier: Apache-2.0
// The desktop controller: saving the configuration and the settings.
#include "tests/app/appgui_testing.h"

Q_DECLARE_METATYPE(QMessageBox::StandardButton)

using namespace appgui;

class AppGuiSavingTest : public AppGuiTesting {
    Q_OBJECT

private slots:
    void absentCamerasAreSaved();
    void absentLeftCamera();
    void savingWithACameraThatDidNotReopen();
    void saving();
    void savingStoresTheSettings_data();
    void savingStoresTheSettings();
    void savingTwoRowsWithOneSerial();
    void savingNothing_data();
    void savingNothing();
    void savingReplacesTheFile();
    void removingTheOldFile();
    void savingWithoutAFolder();
};

void AppGuiSavingTest::absentCamerasAreSaved()
{
    addTwoCameras();
    const QByteArray size = "\"Width\":1920,\"Height\":1200,\"FPS\":15,\"HDR\":0";
    sandbox::writeFile(kConfig, '{' + member(10, kLeft, kThird, size, 34110) + "}\n");
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(9, kLeft, kRight);  // one of its cameras goes
    detach(1, kRight);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QVERIFY(QFile::remove(kConfig));
    desktop.part<QPushButton>("ApplyButton")->click();
    QCOMPARE(written(),
             QByteArray("{\"10\":{\"FPS\":15,\"HDR\":0,\"Height\":1200,\"IMU\":true,"
                        "\"Left\":30123456,\"Port\":34110,\"Right\":30123458,\"Width\":1920},"
                        "\"9\":{\"FPS\":15,\"HDR\":0,\"Height\":1200,\"IMU\":true,"
                        "\"Left\":30123456,\"Port\":34010,\"Right\":30123457,\"Width\":1920}}\n"));
}

// The settings come from the left camera. Without it a row from the configuration keeps what the
// file had, so that nothing is lost, and a new row has zeros.
void AppGuiSavingTest::absentLeftCamera()
{
    addTwoCameras();
    sandbox::writeFile(kConfig,
                       '{' +
                           member(10, kThird, kLeft,
                                  "\"Width\":3200,\"Height\":1800,\"FPS\":12,\"HDR\":1", 34110) +
                           "}\n");
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(9, kLeft, kRight);
    detach(0, kLeft);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QCOMPARE(desktop.panels(), QStringList{"30123457"});
    desktop.part<QPushButton>("ApplyButton")->click();
    QCOMPARE(written(),
             QByteArray("{\"10\":{\"FPS\":12,\"HDR\":1,\"Height\":1800,\"IMU\":true,"
                        "\"Left\":30123458,\"Port\":34110,\"Right\":30123456,\"Width\":3200},"
                        "\"9\":{\"FPS\":0,\"HDR\":0,\"Height\":0,\"IMU\":false,"
                        "\"Left\":30123456,\"Port\":34010,\"Right\":30123457,\"Width\":0}}\n"));
}

void AppGuiSavingTest::savingWithACameraThatDidNotReopen()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    for (const int id : {0, 1}) {
        sdkfake::CameraSetup broken;
        broken.id = id;
        broken.serial = kLeft + id;
        broken.setUpResult = 5;
        sdkfake::changeCamera(broken);
        desktop.part<QPushButton>("ApplyResFPSButton")->click();
        desktop.part<QPushButton>("ApplyButton")->click();
        QCOMPARE(written(),
                 QByteArray("{\"101234567\":{\"FPS\":30,\"HDR\":0,\"Height\":1200,\"IMU\":true,"
                            "\"Left\":30123456,\"Port\":34000,\"Right\":30123457,\"Width\":1920}}"
                            "\n"));
    }
}

void AppGuiSavingTest::saving()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    QByteArray whileShown;
    int room = 0;
    boxes.onBox([&] {
        whileShown = written();
        const auto* const label =
            QApplication::activeModalWidget()->findChild<QLabel*>("qt_msgbox_label");
        room = label->width() - label->fontMetrics().horizontalAdvance(label->text());
    });
    desktop.part<QPushButton>("ApplyButton")->click();
    QVERIFY(room >= 0);  // the path is not broken
    const QByteArray expected =
        "{\"101234567\":{\"FPS\":30,\"HDR\":0,\"Height\":1200,\"IMU\":true,\"Left\":30123456,"
        "\"Port\":34000,\"Right\":30123457,\"Width\":1920}}\n";
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(boxes.seen.first().title, QStringLiteral("Information"));
    QCOMPARE(boxes.seen.first().text,
             QStringLiteral("Configuration has been saved in "
                            "/usr/local/kor/settings/virtual_tsolo_config.json"));
    QCOMPARE(boxes.seen.first().icon, QMessageBox::Information);
    QCOMPARE(whileShown, expected);  // it is on the disk before the box says so
    QCOMPARE(written(), expected);
}

void AppGuiSavingTest::savingStoresTheSettings_data()
{
    QTest::addColumn<bool>("withRow");
    QTest::addColumn<QMessageBox::StandardButton>("answer");
    QTest::addColumn<bool>("stored");
    QTest::newRow("a row") << true << QMessageBox::Ok << true;
    QTest::newRow("no row, yes") << false << QMessageBox::Yes << true;
    QTest::newRow("no row, no") << false << QMessageBox::No << false;
}

void AppGuiSavingTest::savingStoresTheSettings()
{
    QFETCH(bool, withRow);
    QFETCH(QMessageBox::StandardButton, answer);
    QFETCH(bool, stored);
    addTwoCameras();
    MessageBoxes boxes(answer);
    Desktop desktop;
    if (withRow) {
        desktop.addRow(kVirtual, kLeft, kRight);
    }
    desktop.part<QComboBox>("ResolutionComboBox")->setCurrentText(QStringLiteral("960 x 600"));
    desktop.part<QComboBox>("FPSComboBox")->setCurrentText(QStringLiteral("60 frames/s"));
    desktop.part<QPushButton>("ApplyButton")->click();
    // While the window is still open.
    const QSettings store(QStringLiteral("Vellmark"), QStringLiteral("Vistrel"));
    QCOMPARE(store.contains("input/width"), stored);
    if (stored) {
        QCOMPARE(store.value("input/width").toInt(), 960);
        QCOMPARE(store.value("input/height").toInt(), 600);
        QCOMPARE(store.value("input/fps").toInt(), 60);
        QCOMPARE(store.value("input/hdr_mode").toString(), QStringLiteral("0"));
    }
}

void AppGuiSavingTest::savingTwoRowsWithOneSerial()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.addRow(kVirtual, kRight, kLeft);
    desktop.part<QPushButton>("ApplyButton")->click();
    QCOMPARE(written().count("101234567"), 1);
    QCOMPARE(desktop.window->getVirtualCameras().size(), 2);
    const bool firstIsLast = desktop.window->getVirtualCameras().last().leftSerialNumber == kLeft;
    QVERIFY(written().contains(firstIsLast ? "\"Left\":30123456" : "\"Left\":30123457"));
}

void AppGuiSavingTest::savingNothing_data()
{
    QTest::addColumn<QMessageBox::StandardButton>("answer");
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("yes") << QMessageBox::Yes << QByteArray("{}\n");
    QTest::newRow("no") << QMessageBox::No << QByteArray("old");
    QTest::newRow("closed") << QMessageBox::Abort << QByteArray("old");
}

void AppGuiSavingTest::savingNothing()
{
    QFETCH(QMessageBox::StandardButton, answer);
    QFETCH(QByteArray, content);
    addTwoCameras();
    const Desktop desktop;
    sandbox::writeFile(kConfig, "old");
    MessageBoxes boxes(answer);
    desktop.part<QPushButton>("ApplyButton")->click();
    const MessageBoxes::Seen question = boxes.seen.first();
    QCOMPARE(question.title, QStringLiteral("Information"));
    QCOMPARE(question.text, QStringLiteral("Empty configuration. No Virtual cameras will be "
                                           "created.\n Press OK to confirm."));
    QCOMPARE(question.icon, QMessageBox::Question);
    QCOMPARE(question.buttons, QMessageBox::Yes | QMessageBox::No);
    QCOMPARE(question.font.family(), QStringLiteral("Helvetica"));
    QCOMPARE(question.font.pointSize(), 10);
    QCOMPARE(boxes.seen.size(), answer == QMessageBox::Yes ? 2 : 1);
    QCOMPARE(written(), content);
}

// Nothing is ever half-written: who has the former file open goes on reading that.
void AppGuiSavingTest::savingReplacesTheFile()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    sandbox::writeFile(kConfig, "former");
    QFile former(kConfig);
    QVERIFY(former.open(QIODevice::ReadOnly));
    desktop.part<QPushButton>("ApplyButton")->click();
    QCOMPARE(former.readAll(), QByteArray("former"));
    QVERIFY(written().startsWith("{\"101234567\":"));
    QCOMPARE(QFileInfo(kConfig).dir().entryList(QDir::Files),
             QStringList{QFileInfo(kConfig).fileName()});
}

void AppGuiSavingTest::removingTheOldFile()
{
    addTwoCameras();
    standIns->add("rm");
    standIns->answer("rm", "a word\n");
    const MessageLog log;
    const Desktop desktop;
    MessageBoxes boxes(QMessageBox::Yes);
    clearRecord();
    desktop.part<QPushButton>("ApplyButton")->click();
    QCOMPARE(record(), QStringList("rm " + kConfig) + kStored);
    QCOMPARE(log.messages().filter("Process"), QStringList());
}

void AppGuiSavingTest::savingWithoutAFolder()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    // A folder in the file's place cannot be written to, not even by root.
    QVERIFY(QDir().mkdir(kConfig));
    const MessageLog log;
    QString said;
    boxes.onBox([&] { said = desktop.part<QLabel>("statusLine")->text(); });
    desktop.part<QPushButton>("ApplyButton")->click();
    QVERIFY(QDir().rmdir(kConfig));
    QCOMPARE(boxes.seen.size(), 1);  // it says "saved" all the same
    QVERIFY2(said.startsWith(QStringLiteral("The configuration was not written: ")),
             qPrintable(said));
    QVERIFY(boxes.seen.first().text.startsWith(QStringLiteral("Configuration has been saved in")));
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Configuration was not written")).size(),
             1);
}

int main(int argc, char** argv)
{
    AppGuiSavingTest test;
    return runInSandbox(test, argc, argv);
}

#include "appgui_saving_test.moc"
