// SPDX-License-Identifier: Apache-2.0
// Fonts and style sheets of the desktop interface.
#include "ui/style.h"

#include <QFontDatabase>
#include <QFontMetrics>

#include "ui/stylesheets.h"

// The resources are in a static library, whose initialiser is linked only where it is called. The
// macro declares a function and must stand outside of namespaces.
static void initializeResources()
{
    Q_INIT_RESOURCE(settings);
}

namespace {

constexpr char kRegular[] = "NB Akademie Pro Regular";
constexpr char kMedium[] = "NB Akademie Pro Medium";
constexpr char kMonoRegular[] = "NB Akademie Mono Pro Regular";
constexpr char kMonoMedium[] = "NB Akademie Mono Pro Medium";

constexpr const char* kFontFiles[] = {
    ":/font/Roboto-Medium.ttf",
    ":/font/Roboto-Bold.ttf",
    ":/font/Roboto-Regular.ttf",
    ":/font/Helvetica-Neue.ttf",
    ":/font/NBAkademiePro-Regular.ttf",
    ":/font/NBAkademiePro-Medium.ttf",
    ":/font/NBAkademieMonoPro-Regular.ttf",
    ":/font/NBAkademieMonoPro-Medium.ttf",
};

constexpr int kReferencePointSize = 10;
constexpr int kDesignReferenceWidth = 28;
constexpr qreal kText = 102;     // letter spacing, percent
constexpr qreal kCaption = 106;  // letter spacing, percent

struct FontEntry {
    QFont Style::*font = nullptr;
    const char* family = nullptr;
    float scale = 0;  // point size times the reference width
    int weight = QFont::Normal;
    qreal spacing = 0;  // percent; 0 leaves the letters as they stand
    QFont::Capitalization capitalization = QFont::MixedCase;
};

constexpr FontEntry kFonts[] = {
    {&Style::fontTitle, kMedium, 308, QFont::Medium},
    {&Style::fontHeadline, kMedium, 280, QFont::ExtraBold},
    {&Style::fontBanner, kMedium, 420, QFont::Medium, 0, QFont::AllUppercase},
    {&Style::fontCaption, kRegular, 252, QFont::Normal, kCaption, QFont::AllUppercase},
    {&Style::fontPreview, kRegular, 252, QFont::Normal, kText},
    {&Style::fontText, kRegular, 252, QFont::Normal, kText},
    {&Style::fontLead, kRegular, 336, QFont::Normal},
    {&Style::fontStrong, kMedium, 280, QFont::Bold, kText},
    {&Style::fontSmall, kRegular, 224, QFont::Normal},
    {&Style::fontFine, kMonoRegular, 196, QFont::Normal, kText},
    {&Style::fontLight, kRegular, 280, QFont::Light},
    {&Style::fontButton, kMedium, 252, QFont::Medium, kText},
    {&Style::fontDisplay, kMonoMedium, 756, QFont::Medium},
};

int measureReferenceWidth()
{
    QFont font(kMonoMedium, -1, -1, false);
    font.setPointSize(kReferencePointSize);
    return QFontMetrics(font).horizontalAdvance("123");
}

}  // namespace

int Style::pointSize(float scale, int referenceWidth)
{
    const int width = referenceWidth > 0 ? referenceWidth : kDesignReferenceWidth;
    return static_cast<int>(scale / static_cast<float>(width));
}

Style::Style()
{
    initializeResources();
    registerFonts();
    referenceWidth = measureReferenceWidth();
    configureFonts();
    for (const StyleSheet& sheet : sharedStyleSheets(*this)) {
        this->*sheet.member = sheet.text;
    }
}

// Each registration holds a copy of its file, which would stay for ever.
Style::~Style()
{
    for (const int id : qAsConst(fontIds)) {
        QFontDatabase::removeApplicationFont(id);
    }
}

// Every instance registers the same files again, deliberately.
void Style::registerFonts()
{
    for (const char* file : kFontFiles) {
        fontIds.append(QFontDatabase::addApplicationFont(file));
    }
    // The files shipped under these names hold open typefaces with their own family names. Where
    // the real families are present they are found first.
    QFont::insertSubstitution(kRegular, "Geist");
    QFont::insertSubstitution(kMedium, "Geist");
    QFont::insertSubstitution(kMonoRegular, "Martian Mono");
    QFont::insertSubstitution(kMonoMedium, "Martian Mono");
}

void Style::configureFonts()
{
    for (const FontEntry& entry : kFonts) {
        QFont& font = this->*entry.font;
        font.setFamily(entry.family);
        const int size = pointSize(entry.scale, referenceWidth);
        if (entry.font == &Style::fontDisplay) {
            font.setWeight(entry.weight);  // before its size, deliberately
            font.setPointSize(size);
        } else {
            font.setPointSize(size);
            font.setWeight(entry.weight);
        }
        if (entry.spacing > 0) {
            font.setLetterSpacing(QFont::PercentageSpacing, entry.spacing);
        }
        font.setCapitalization(entry.capitalization);
        // The second call replaces the first; both are kept deliberately.
        font.setStyleStrategy(QFont::NoSubpixelAntialias);
        font.setStyleStrategy(QFont::PreferAntialias);
    }
}
