// SPDX-License-Identifier: Apache-2.0
// The main window: the capture settings of all cameras.
#include "tests/ui/mainwindow_testing.h"

using namespace mainwindow;

namespace {

const tq::MODEL kUnknownModel = tq::MODEL(4);

}  // namespace

class MainWindowSettingsTest : public MainWindowTesting {
    Q_OBJECT

private slots:
    void resolutionsOfAModel_data();
    void resolutionsOfAModel();
    void noModelEmptiesTheLists();
    void frameRatesOfAResolution_data();
    void frameRatesOfAResolution();
    void frameRatesFollowTheResolution();
    void applyAnnouncesTheSettings();
    void applyWithoutFrameRate();
    void applyWithoutResolution();
    void currentSettings();
    void currentSettingsWithoutLists();
    void selectedSettingsAnnounceNothing();
    void selectingSettings();
    void settingsThatAreNotListed();
    void hdrTellsEqualSizesApart();
    void frameRateIndexIsFoundBeforeTheResolutionChanges();
    void frameRateIndexIsBoundByTheResolutions();
};

void MainWindowSettingsTest::resolutionsOfAModel_data()
{
    QTest::addColumn<int>("model");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("global shutter") << 30 << QStringList{"1920 x 1200", "1920 x 1080", "960 x 600"};
    QTest::newRow("UHD") << 31 << QStringList{"1920 x 1080", "1920 x 1200",     "3200 x 1800",
                                              "3840 x 2160", "1920 x 1200 HDR", "3200 x 1800 HDR"};
    QTest::newRow("another model") << static_cast<int>(kUnknownModel) << QStringList();
}

void MainWindowSettingsTest::resolutionsOfAModel()
{
    QFETCH(int, model);
    QFETCH(QStringList, expected);
    Window window;
    window.setGlobalCameraConfigurationContent(tq::MODEL(model));
    const auto* const list = window.part<QComboBox>("ResolutionComboBox");
    QCOMPARE(texts(list), expected);
    for (int i = 0; i < expected.size(); ++i) {
        const QStringList words = expected.at(i).split(QLatin1Char(' '));
        QCOMPARE(list->itemData(i).toSize(), QSize(words.at(0).toInt(), words.at(2).toInt()));
    }
}

void MainWindowSettingsTest::noModelEmptiesTheLists()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    QVERIFY(window.part<QComboBox>("FPSComboBox")->count() > 0);
    window.setGlobalCameraConfigurationContent(sdk::kNoModel);
    QCOMPARE(window.part<QComboBox>("ResolutionComboBox")->count(), 0);
    QCOMPARE(window.part<QComboBox>("FPSComboBox")->count(), 0);
}

void MainWindowSettingsTest::frameRatesOfAResolution_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<bool>("hdr");
    QTest::addColumn<QList<int>>("rates");
    QTest::newRow("1920 x 1200 HDR") << 1920 << 1200 << true << QList<int>{30};
    QTest::newRow("1920 x 1200") << 1920 << 1200 << false << QList<int>{15, 60, 30};
    QTest::newRow("1920 x 1080") << 1920 << 1080 << false << QList<int>{15, 60, 30};
    QTest::newRow("1920 x 1080 HDR") << 1920 << 1080 << true << QList<int>{15, 60, 30};
    QTest::newRow("2999") << 2999 << 10 << false << QList<int>{15, 60, 30};
    QTest::newRow("3000") << 3000 << 10 << false << QList<int>{15};
    QTest::newRow("3840 x 2160") << 3840 << 2160 << false << QList<int>{15};
    QTest::newRow("3200 x 1800 HDR") << 3200 << 1800 << true << QList<int>{15};
}

void MainWindowSettingsTest::frameRatesOfAResolution()
{
    QFETCH(int, width);
    QFETCH(int, height);
    QFETCH(bool, hdr);
    QFETCH(QList<int>, rates);
    Window window;
    window.setAvailableFramerates(width, height, hdr);
    const auto* const list = window.part<QComboBox>("FPSComboBox");
    QCOMPARE(list->count(), rates.size());
    for (int i = 0; i < rates.size(); ++i) {
        QCOMPARE(list->itemText(i), QStringLiteral("%1 frames/s").arg(rates.at(i)));
        QCOMPARE(list->itemData(i), QVariant(rates.at(i)));
    }
    QCOMPARE(list->currentIndex(), 0);
}

void MainWindowSettingsTest::frameRatesFollowTheResolution()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    auto* const resolutions = window.part<QComboBox>("ResolutionComboBox");
    const auto* const rates = window.part<QComboBox>("FPSComboBox");
    QCOMPARE(rates->count(), 3);
    resolutions->setCurrentIndex(3);  // 3840 x 2160
    QCOMPARE(texts(rates), QStringList{"15 frames/s"});
    resolutions->setCurrentIndex(4);  // 1920 x 1200 HDR
    QCOMPARE(texts(rates), QStringList{"30 frames/s"});
    resolutions->setCurrentIndex(1);  // 1920 x 1200
    QCOMPARE(texts(rates), (QStringList{"15 frames/s", "60 frames/s", "30 frames/s"}));
    window.part<QComboBox>("FPSComboBox")->clear();
    window.onGlobalResolutionChanged(QString());  // the text does not matter
    QCOMPARE(rates->count(), 3);
    resolutions->setCurrentIndex(4);
    window.onGlobalResolutionChanged(QStringLiteral("1920 x 1200"));
    QCOMPARE(texts(rates), QStringList{"30 frames/s"});
}

void MainWindowSettingsTest::applyAnnouncesTheSettings()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    window.part<QComboBox>("ResolutionComboBox")->setCurrentIndex(4);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    QTest::mouseClick(window.part<QWidget>("ApplyResFPSButton"), Qt::LeftButton);
    QCOMPARE(announced.count(), 1);
    QCOMPARE(announced.first(), (QVariantList{30, 1920, 1200, true}));
}

void MainWindowSettingsTest::applyWithoutFrameRate()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    window.part<QComboBox>("FPSComboBox")->setCurrentIndex(-1);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    const MessageLog log;
    window.onApplyGlobalCameraConfiguration();
    QCOMPARE(announced.count(), 0);
    QCOMPARE(log.debugMessages(QString()), QStringList{"Invalid camera configuration selection."});
}

void MainWindowSettingsTest::applyWithoutResolution()
{
    Window window;
    window.setAvailableFramerates(1920, 1200, false);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    const MessageLog log;
    QTest::mouseClick(window.part<QWidget>("ApplyResFPSButton"), Qt::LeftButton);
    QCOMPARE(announced.count(), 0);
    QCOMPARE(log.debugMessages(QString()), QStringList{"Invalid camera configuration selection."});
}

void MainWindowSettingsTest::currentSettings()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    window.part<QComboBox>("ResolutionComboBox")->setCurrentIndex(5);
    int fps = 0;
    int width = 0;
    int height = 0;
    bool hdr = false;
    window.getCurrentSettings(fps, width, height, hdr);
    QCOMPARE(fps, 15);
    QCOMPARE(width, 3200);
    QCOMPARE(height, 1800);
    QCOMPARE(hdr, true);
}

void MainWindowSettingsTest::currentSettingsWithoutLists()
{
    Window window;
    int fps = 11;
    int width = 12;
    int height = 13;
    bool hdr = true;
    window.getCurrentSettings(fps, width, height, hdr);
    QCOMPARE(fps, 11);
    QCOMPARE(width, 12);
    QCOMPARE(height, 13);
    QCOMPARE(hdr, false);  // the only one that is always set
}

void MainWindowSettingsTest::selectedSettingsAnnounceNothing()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    window.setCurrentSettings(15, 1920, 1200, false);
    QCOMPARE(announced.count(), 0);
    window.setCurrentSettings(17, 1111, 1200, false);  // neither is listed
    QCOMPARE(announced.count(), 0);
    window.setCurrentSettings(17, 1920, 1200, false);  // one is current, the other not listed
    QCOMPARE(announced.count(), 0);
}

void MainWindowSettingsTest::selectingSettings()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    window.setCurrentSettings(60, 960, 600, false);
    QCOMPARE(window.part<QComboBox>("ResolutionComboBox")->currentText(),
             QStringLiteral("960 x 600"));
    QCOMPARE(window.part<QComboBox>("FPSComboBox")->currentText(), QStringLiteral("60 frames/s"));
    QCOMPARE(announced.count(), 1);
    QCOMPARE(announced.first(), (QVariantList{60, 960, 600, false}));
}

void MainWindowSettingsTest::settingsThatAreNotListed()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    window.setCurrentSettings(30, 0, 0, false);  // a first run: no size is stored
    QCOMPARE(window.part<QComboBox>("ResolutionComboBox")->currentIndex(), 0);
    QCOMPARE(window.part<QComboBox>("FPSComboBox")->currentText(), QStringLiteral("30 frames/s"));
    QCOMPARE(announced.count(), 1);
    QCOMPARE(announced.first(), (QVariantList{30, 0, 0, false}));  // as given, not as selected
}

void MainWindowSettingsTest::hdrTellsEqualSizesApart()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    window.setCurrentSettings(15, 1920, 1200, true);
    QCOMPARE(window.part<QComboBox>("ResolutionComboBox")->currentIndex(), 4);
    window.setCurrentSettings(15, 1920, 1200, false);
    QCOMPARE(window.part<QComboBox>("ResolutionComboBox")->currentIndex(), 1);
}

void MainWindowSettingsTest::frameRateIndexIsFoundBeforeTheResolutionChanges()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    auto* const rates = window.part<QComboBox>("FPSComboBox");
    // 30 is the third of three now; the new resolution's list has one, so nothing is selected.
    window.setCurrentSettings(30, 1920, 1200, true);
    QCOMPARE(texts(rates), QStringList{"30 frames/s"});
    QCOMPARE(rates->currentIndex(), -1);
    // The other way round: 15 is the first of one and stays the first of three.
    window.setCurrentSettings(30, 3840, 2160, false);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    window.setCurrentSettings(60, 1920, 1080, false);  // 60 is not in the list of now
    QCOMPARE(rates->currentText(), QStringLiteral("15 frames/s"));
    QCOMPARE(announced.count(), 1);
    QCOMPARE(announced.first(), (QVariantList{60, 1920, 1080, false}));
}

void MainWindowSettingsTest::frameRateIndexIsBoundByTheResolutions()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    auto* const resolutions = window.part<QComboBox>("ResolutionComboBox");
    resolutions->removeItem(2);
    resolutions->removeItem(1);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    // One resolution: the second frame rate is beyond the bound, although there are three.
    window.setCurrentSettings(60, 1920, 1200, false);
    QCOMPARE(window.part<QComboBox>("FPSComboBox")->currentIndex(), 0);
    QCOMPARE(announced.count(), 1);
    QCOMPARE(announced.first(), (QVariantList{60, 1920, 1200, false}));
}

QTEST_MAIN(MainWindowSettingsTest)
#include "mainwindow_settings_test.moc"
