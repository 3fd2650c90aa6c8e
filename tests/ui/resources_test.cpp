// SPDX-License-Identifier: Apache-2.0
// Tests of the compiled-in fonts and images.
#include <QDir>
#include <QFile>
#include <QImage>
#include <QRawFont>
#include <QResource>
#include <QtTest>

#include "ui/style.h"

namespace {

const QStringList kFonts{
    "Roboto-Medium.ttf",
    "Roboto-Bold.ttf",
    "Roboto-Regular.ttf",
    "Helvetica-Neue.ttf",
    "NBAkademiePro-Regular.ttf",
    "NBAkademiePro-Medium.ttf",
    "NBAkademieMonoPro-Regular.ttf",
    "NBAkademieMonoPro-Medium.ttf",
    "NunitoSans-SemiBold.ttf",
    "NunitoSans-Bold.ttf",
    "NunitoSans-Light.ttf",
    "NunitoSans-Regular.ttf",
    "Audiowide-Regular.ttf",
};

const QStringList kImages =
    QStringLiteral(
        "drop_arrow_tq_pearl drop_arrow_tq_iron top_arrow_tq_pearl top_arrow_tq_iron closeCross "
        "closeCross_tq_pearl slider_off slider_on slider_on_h notTested skybox_side skybox_top "
        "skybox_bottom diagnosticSplash loading warning waiting info success fail update "
        "restartIcon saveIcon CBSUpdate 2.6_pdate stream_connecting check_on check_on_h "
        "check_off check_off_h check_na_on check_na_off box_on box_off box_off_hover box_u "
        "radio_on radio_off radio_off_h play play_h pause pause_h stop stop_h refresh refresh_h "
        "gear gear_h gear_off photo photo_h photo_u video video_h video_u rec rec_h rec_u rec_on "
        "rec_on_h folder folder_h folder_u stream stream_h QuillonCreateStream "
        "QuillonCreateStream_h QuillonCreateStream_u QuillonCreateStream_connecting "
        "QuillonCreateStreamStop QuillonCreateStreamStop_h KOR KOR_grey KOR_white TQ_white")
        .split(' ');

// These have no file, deliberately.
const QStringList kMissing{"aspect",           "aspect_hover",    "combo_arrow_top",
                           "drop_arrow_black", "top_arrow_black", "top_arrow_blue",
                           "video_on",         "video_on_h",      "drop_arrow_company_color"};

const QStringList kCompressed{"skybox_top", "skybox_bottom", "waiting"};

int alphaPixels(const QImage& image, int minimum, int maximum)
{
    int count = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const int alpha = qAlpha(image.pixel(x, y));
            count += alpha >= minimum && alpha <= maximum ? 1 : 0;
        }
    }
    return count;
}

void addNames(const QStringList& names)
{
    QTest::addColumn<QString>("name");
    for (const QString& name : names) {
        QTest::newRow(qPrintable(name)) << name;
    }
}

}  // namespace

class ResourcesTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void treeHoldsExactlyTheNamedFiles();
    void fontIsUsable_data() { addNames(kFonts); }
    void fontIsUsable();
    void imageIsUsable_data() { addNames(kImages); }
    void imageIsUsable();
    void imageHasADenseCompanion_data() { addNames(kImages); }
    void imageHasADenseCompanion();
    void missingImageHasNoFile_data() { addNames(kMissing); }
    void missingImageHasNoFile();
    void storageIsAsNamed();
    void filesCarryTheirTimes();
    void variantsDiffer();
    void colourOfOnIsForWhatIsOn();
    void stopIsNoEmptyBox();
};

void ResourcesTest::initTestCase()
{
    const Style style;  // initialises the collection
    QVERIFY(QDir(":/images").exists());
}

void ResourcesTest::treeHoldsExactlyTheNamedFiles()
{
    QStringList fonts = kFonts;
    fonts.sort();
    QStringList listed = QDir(":/font").entryList(QDir::Files);
    listed.sort();
    QCOMPARE(listed, fonts);

    QStringList images;
    for (const QString& name : kImages) {
        images << name + ".png" << name + "@2x.png";
    }
    images.sort();
    listed = QDir(":/images").entryList(QDir::Files);
    listed.sort();
    QCOMPARE(listed, images);

    // Beside these: what they have no image for.
    QStringList icons{"window.png"};
    for (const char* const name : {"play_u", "stop_u", "refresh_u", "stream_u"}) {
        icons << QString(name) + ".png" << QString(name) + "@2x.png";
    }
    icons.sort();
    listed = QDir(":/icons").entryList(QDir::Files);
    listed.sort();
    QCOMPARE(listed, icons);
}

void ResourcesTest::fontIsUsable()
{
    QFETCH(QString, name);
    const QRawFont font(":/font/" + name, 16);
    QVERIFY(font.isValid());
    QCOMPARE(font.glyphIndexesForString("Aa09").count(0), 0);  // no glyph is missing
    QVERIFY(!font.familyName().contains("Akademie", Qt::CaseInsensitive));
    QVERIFY(!font.familyName().contains("Helvetica", Qt::CaseInsensitive));
}

void ResourcesTest::imageIsUsable()
{
    QFETCH(QString, name);
    const QImage image(":/images/" + name + ".png");
    QVERIFY(!image.isNull());
    QVERIFY(alphaPixels(image, 129, 255) > 0);
    if (name.startsWith("skybox")) {  // surroundings have no ground to show through
        QCOMPARE(alphaPixels(image, 255, 255), image.width() * image.height());
    } else {
        QVERIFY(image.hasAlphaChannel());
        QVERIFY(alphaPixels(image, 0, 200) > 0);
    }
}

void ResourcesTest::imageHasADenseCompanion()
{
    QFETCH(QString, name);
    const QImage image(":/images/" + name + ".png");
    const QImage dense(":/images/" + name + "@2x.png");
    QCOMPARE(dense.size(), image.size() * 2);
    QCOMPARE(dense.hasAlphaChannel(), image.hasAlphaChannel());
    QVERIFY(alphaPixels(dense, 129, 255) > 0);
}

void ResourcesTest::missingImageHasNoFile()
{
    QFETCH(QString, name);
    QVERIFY(!QFile::exists(":/images/" + name + ".png"));
}

void ResourcesTest::storageIsAsNamed()
{
    for (const QString& name : kImages) {
        const QResource resource(":/images/" + name + ".png");
        QVERIFY(resource.isValid());
        const QResource::Compression expected =
            kCompressed.contains(name) ? QResource::ZlibCompression : QResource::NoCompression;
        QVERIFY2(resource.compressionAlgorithm() == expected, qPrintable(name));
    }
    for (const QString& name : kFonts) {
        QVERIFY2(QResource(":/font/" + name).compressionAlgorithm() == QResource::NoCompression,
                 qPrintable(name));
    }
}

void ResourcesTest::filesCarryTheirTimes()
{
    for (const QString& name : kFonts) {
        QVERIFY2(QResource(":/font/" + name).lastModified().isValid(), qPrintable(name));
    }
    for (const QString& name : kImages) {
        QVERIFY2(QResource(":/images/" + name + ".png").lastModified().isValid(), qPrintable(name));
    }
}

// A state that looks like the one beside it tells the operator nothing.
void ResourcesTest::variantsDiffer()
{
    for (const QString& name : kImages) {
        for (const char* suffix : {"_h", "_u", "_off", "_hover"}) {
            if (kImages.contains(name + suffix)) {
                QVERIFY2(QImage(":/images/" + name + ".png") !=
                             QImage(":/images/" + name + suffix + ".png"),
                         qPrintable(name + suffix));
            }
        }
    }
}

// What is off does not light up below the pointer as if it were on.
void ResourcesTest::colourOfOnIsForWhatIsOn()
{
    for (const char* const name : {"check_off_h", "box_off_hover", "radio_off_h"}) {
        const QImage image(QString(":/images/%1.png").arg(name));
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x) {
                const QColor pixel = image.pixelColor(x, y);
                QVERIFY2(pixel.alpha() < 128 || pixel.saturation() < 30, name);
            }
        }
    }
}

void ResourcesTest::stopIsNoEmptyBox()
{
    for (const char* const name : {":/images/stop.png", ":/images/stop_h.png"}) {
        const QImage image(name);
        QCOMPARE(image.pixelColor(image.rect().center()).alpha(), 255);
    }
}

QTEST_MAIN(ResourcesTest)
#include "resources_test.moc"
