// SPDX-License-Identifier: Apache-2.0
// Style sheets of the desktop interface: the fragments that they are made of.
#include "ui/stylesheets.h"

#include <QFontMetrics>
#include <QHash>
#include <QRegularExpression>
#include <QStringList>

#include "ui/colors.h"
#include "ui/style.h"

namespace {

// In the texts below "$name" stands for a colour, for the description of a font or for what a sheet
// sets itself; names may stand for texts with names.
using Names = QHash<QString, QString>;

// The family is quoted: the parser would take "Medium" for its keyword of that name.
QString description(const QFont& font)
{
    static const QHash<int, const char*> kWeights{
        {QFont::ExtraBold, "; font-weight: ExtraBold; font-size:"},
        {QFont::Normal, "; font-weight: Regular; font-size:"},
        {QFont::Medium, "; font-weight: Medium; font-size:"},
        {QFont::Bold, "; font-weight: Bold; font-size:"},
        {QFont::Light, "; font-weight: Light; font-size:"}};
    return "font-family:\"" + font.family() + "\"" + kWeights[font.weight()] +
           QString::number(font.pointSize()) + "pt;";
}

Names commonNames(const Style& style)
{
    return {
        {"black", clr::black},
        {"company_clr", clr::company_clr},
        {"company_clr_h", clr::company_clr_h},
        {"concrete", clr::concrete},
        {"green", clr::green},
        {"green_h", clr::green_h},
        {"med_black", clr::med_black},
        {"red", clr::red},
        {"red_h", clr::red_h},
        {"soft_black", clr::soft_black},
        {"tq_ash", clr::tq_ash},
        {"tq_black", clr::tq_black},
        {"tq_charcoal", clr::tq_charcoal},
        {"tq_demo_red", clr::tq_demo_red},
        {"tq_iron", clr::tq_iron},
        {"tq_pearl", clr::tq_pearl},
        {"tq_soil", clr::tq_soil},
        {"tq_steel", clr::tq_steel},
        {"tq_white", clr::tq_white},
        {"transparent", clr::transparent},
        {"bannerFont", description(style.fontBanner)},
        {"buttonFont", description(style.fontButton)},
        {"headlineFont", description(style.fontHeadline)},
        {"lightFont", description(style.fontLight)},
        {"smallFont", description(style.fontSmall)},
        {"strongFont", description(style.fontStrong)},
        {"textFont", description(style.fontText)},
        {"frame", "border-width: 1px; border-style: solid; border-radius: 4px; outline: none;"},
        {"noFrame",
         "background-color: $transparent; border: 1px solid $transparent; "
         "border-radius: 4px; outline: none;"},
        {"focus", "border-color: $company_clr;"},
        {"chosen", "background-color: $company_clr; color: $tq_soil;"},
        {"selection", "selection-background-color: $company_clr; selection-color: $tq_soil;"},
        {"unavailable", "background-color: $tq_steel; color: $concrete; border-color: $black;"}};
}

constexpr char kButtonStates[] = R"(
$control:hover { $hover }
$control:checked { $checked }
$control:checked:hover { $checked border-color: $tq_pearl; }
$control:focus { border-color: $focusBorder; }
$control:pressed { $pressed }
$control:disabled { $disabled }
$control:checked:disabled { $disabled background-color: $tq_black; }
)";

// Looks of a button: ground, text and border when normal, under the pointer, pressed, checked and
// disabled, and the border that shows keyboard focus.
constexpr char kOrdinary[] =
    "tq_charcoal tq_pearl soft_black  soft_black tq_white tq_ash  tq_soil company_clr company_clr  "
    "company_clr tq_soil company_clr  tq_steel concrete black  company_clr";
// The sign of a remove button is small, so that its border is red, too.
constexpr char kRemoval[] =
    "tq_soil red red_h  red tq_soil red  red_h tq_white red_h  "
    "company_clr tq_soil company_clr  tq_steel concrete black  company_clr";
constexpr char kFilled[] =
    "accent tq_soil accent  accent_h tq_soil accent_h  tq_soil accent accent  "
    "accent_h tq_soil accent_h  tq_steel concrete black  tq_pearl";
constexpr char kOutlined[] =
    "transparent accent accent  accent tq_soil accent  tq_soil accent accent  "
    "accent tq_soil accent  transparent concrete soft_black  tq_pearl";

QString look(const QStringList& colors, int at)
{
    return QStringLiteral("background-color: $%1; color: $%2; border-color: $%3;")
        .arg(colors.at(at), colors.at(at + 1), colors.at(at + 2));
}

QStringList words(const char* text)
{
    return QString(text).split(' ', Qt::SkipEmptyParts);
}

Names button(const char* looks, const char* control)
{
    const QStringList colors = words(looks);
    return {{"normal", look(colors, 0)},    {"hover", look(colors, 3)},
            {"pressed", look(colors, 6)},   {"checked", look(colors, 9)},
            {"disabled", look(colors, 12)}, {"focusBorder", "$" + colors.at(15)},
            {"control", control},           {"states", kButtonStates}};
}

constexpr char kButton[] = R"(
QAbstractButton { $font $normal $frame border-width: $width; padding: $padding; }
$states
)";

// Buttons of one sign are square and need all their width for it. Both signs lie below the middle
// of a line of text, the hyphen of a larger font more so.
constexpr char kSquareSigns[] = R"(
QAbstractButton[text="+"] { padding: 0px 0px 2px 0px; }
QAbstractButton[text="-"] { padding: 0px 0px 4px 0px; }
)";

constexpr char kLinkButton[] = R"(
QAbstractButton { $buttonFont $noFrame color: $company_clr; padding: 0px 2px; }
QAbstractButton:hover { color: $company_clr_h; text-decoration: underline; }
QAbstractButton:checked { color: $tq_pearl; }
QAbstractButton:focus { $focus }
QAbstractButton:pressed { color: $tq_pearl; }
QAbstractButton:disabled { color: $concrete; text-decoration: none; }
)";

// A piece of a row of joined buttons. Neighbours share the line between them, so only the first
// piece draws its left edge.
constexpr char kToolGroup[] = R"(
QToolButton { $buttonFont $normal border-width: 1px; border-style: solid; outline: none;
    padding: 3px 12px; $outerShape }
$states
)";
constexpr char kToolGroupLeft[] =
    "border-top-left-radius: 4px; border-bottom-left-radius: 4px; border-right-color: $tq_soil;";
constexpr char kToolGroupMiddle[] = "border-left-width: 0px; border-right-color: $tq_soil;";
constexpr char kToolGroupRight[] =
    "border-left-width: 0px; border-top-right-radius: 4px; border-bottom-right-radius: 4px;";

constexpr char kIconButton[] = R"(
QToolButton { $noFrame padding: 3px; $normal }
QToolButton:hover { background-color: $tq_charcoal; $hover }
QToolButton:checked { $checked }
QToolButton:checked:hover { $checkedHover }
QToolButton:focus { $focus }
QToolButton:pressed { background-color: $tq_black; }
QToolButton:disabled { background-color: $tq_steel; $disabled }
)";

// Images of the icon buttons: normal, under the pointer, checked, both, disabled; a dash leaves the
// state as the one before it; a name with a folder is none of the named set's. Those of a checked
// video button and all of the aspect button do not exist: such buttons show none, deliberately.
struct Icons {
    QString Style::*sheet;
    const char* images;
};
constexpr Icons kIcons[] = {
    {&Style::iconPlayPause, "play play_h pause pause_h icons/play_u"},
    {&Style::iconStop, "stop stop_h - - icons/stop_u"},
    {&Style::iconRefresh, "refresh refresh_h - - icons/refresh_u"},
    {&Style::iconGear, "gear gear_h gear_h gear_h gear_off"},
    {&Style::iconPhoto, "photo photo_h - - photo_u"},
    {&Style::iconVideo, "video video_h video_on video_on_h video_u"},
    {&Style::iconRec, "rec rec_h rec_on rec_on_h rec_u"},
    {&Style::iconAspect, "aspect aspect_hover - - -"},
    {&Style::iconFolder, "folder folder_h - - folder_u"},
    {&Style::iconStream, "stream stream_h stream_h stream_h icons/stream_u"},
    {&Style::iconCreateStream,
     "QuillonCreateStream QuillonCreateStream_h QuillonCreateStreamStop "
     "QuillonCreateStreamStop_h QuillonCreateStream_u"},
};

Names icons(const char* images)
{
    const QStringList names = words(images);
    const auto image = [&names](int at) {
        const QString& name = names.at(at);
        const QString path = name.contains('/') ? name : "images/" + name;
        return name == "-" ? QString() : "image:url(:/" + path + ".png);";
    };
    return {{"normal", image(0)},
            {"hover", image(1)},
            {"checked", image(2)},
            {"checkedHover", image(3)},
            {"disabled", image(4)}};
}

constexpr char kCloseCross[] = R"(
QAbstractButton { $noFrame padding: 1px; image:url(:/images/closeCross.png); }
QAbstractButton:hover { background-color: $tq_charcoal; image:url(:/images/closeCross_tq_pearl.png); }
QAbstractButton:checked { image:url(:/images/closeCross_tq_pearl.png); }
QAbstractButton:focus { $focus }
QAbstractButton:pressed { background-color: $red_h; image:url(:/images/closeCross_tq_pearl.png); }
QAbstractButton:disabled { background-color: $transparent; }
)";

// Check boxes and radio buttons, without their marks.
constexpr char kChoice[] = R"(
$control { $textFont $noFrame color: $tq_iron; padding: $padding; spacing: 8px; }
$control:hover { color: $tq_white; }
$control:checked { color: $tq_pearl; }
$control:focus { $focus }
$control:disabled { color: $concrete; }
)";

// A check box drawn as a switch.
constexpr char kSwitch[] = R"(
QCheckBox::indicator { width:$width; height:$height; }
QCheckBox::indicator:unchecked { image:url(:/images/check_off.png); }
QCheckBox::indicator:unchecked:hover { image:url(:/images/check_off_h.png); }
QCheckBox::indicator:checked { image:url(:/images/check_on.png); }
QCheckBox::indicator:checked:hover { image:url(:/images/check_on_h.png); }
QCheckBox::indicator:unchecked:disabled { image:url(:/images/check_na_off.png); }
QCheckBox::indicator:checked:disabled { image:url(:/images/check_na_on.png); }
)";

// Check marks of 12 px; also those of menus and lists. The border of the state that has no image
// takes the image's place.
constexpr char kSmallMark[] = R"(
$control::indicator { width: 12px; height: 12px; }
$control::indicator:unchecked { image:url(:/images/box_off.png); }
$control::indicator:unchecked:hover { image:url(:/images/box_off_hover.png); }
$control::indicator:checked { image:url(:/images/box_on.png); }
$control::indicator:unchecked:disabled { width: 10px; height: 10px; image: none;
    border: 1px solid $soft_black; border-radius: 2px; }
$control::indicator:checked:disabled { image:url(:/images/box_u.png); }
)";

// No image shows an unavailable choice: circles drawn by the toolkit do.
constexpr char kRadioMark[] = R"(
QRadioButton::indicator { width: 16px; height: 16px; }
QRadioButton::indicator:unchecked { image:url(:/images/radio_off.png); }
QRadioButton::indicator:unchecked:hover { image:url(:/images/radio_off_h.png); }
QRadioButton::indicator:checked { image:url(:/images/radio_on.png); }
QRadioButton::indicator:disabled { width: 12px; height: 12px; image: none;
    border: 2px solid $soft_black; border-radius: 8px; }
QRadioButton::indicator:checked:disabled { background-color: $med_black; }
)";

constexpr char kLineEdit[] = R"(
QLineEdit { $textFont background-color: $tq_black; color: $tq_pearl; padding: 1px 6px;
    border: 1px solid $soft_black; border-radius: 4px; $selection }
QLineEdit:read-only { background-color: $tq_soil; }
QLineEdit:hover { border-color: $tq_ash; }
QLineEdit:focus { $focus }
QLineEdit:disabled { $unavailable }
)";

// A camera that a row waits for stands in its list like a choice, but is none. The entries of the
// open list are in line with the text of the closed one.
constexpr char kComboBox[] = R"(
QComboBox { $textFont $normal $frame padding: 2px 4px 2px 8px; combobox-popup: 0; }
QComboBox[waiting="true"] { background-color: $tq_steel; color: $concrete; }
QComboBox:hover { $hover }
QComboBox:focus, QComboBox:on { $focus }
QComboBox:disabled { $unavailable }
QComboBox::drop-down { subcontrol-origin: padding; subcontrol-position: center right; width: 20px;
    border: none; background-color: $transparent; }
QComboBox::down-arrow { width: 15px; height: 15px; image:url(:/images/$down.png); }
QComboBox::down-arrow:hover { image:url(:/images/$downHover.png); }
QComboBox::down-arrow:on { image:url(:/images/$upHover.png); }
QComboBox::down-arrow:disabled { image: none; }
QComboBox QAbstractItemView { $textFont $normal border: 1px solid $tq_ash; outline: none;
    padding: 2px; $selection }
QComboBox QAbstractItemView::item { $normal border: 0px solid; min-height: 24px; padding: 0px 6px; }
QComboBox QAbstractItemView::item:selected { $chosen }
)";

constexpr char kSpinBox[] = R"(
QSpinBox { $textFont $normal $frame padding: 1px 0px 1px 6px; max-height: 18px; $selection }
QSpinBox:hover { border-color: $tq_ash; }
QSpinBox:focus { $focus }
QSpinBox:disabled { $unavailable }
QSpinBox::up-button { subcontrol-origin: padding; subcontrol-position: top right; width: 20px;
    border: none; border-top-right-radius: 3px; background-color: $transparent; }
QSpinBox::down-button { subcontrol-origin: padding; subcontrol-position: bottom right; width: 20px;
    border: none; border-bottom-right-radius: 3px; background-color: $transparent; }
QSpinBox::up-button:hover, QSpinBox::down-button:hover { background-color: $hoverGround; }
QSpinBox::up-button:pressed, QSpinBox::down-button:pressed { background-color: $tq_ash; }
QSpinBox::up-arrow { width: 15px; height: 15px; image:url(:/images/$up.png); }
QSpinBox::down-arrow { width: 15px; height: 15px; image:url(:/images/$down.png); }
QSpinBox::up-arrow:hover { image:url(:/images/$upHover.png); }
QSpinBox::down-arrow:hover { image:url(:/images/$downHover.png); }
QSpinBox::up-arrow:off, QSpinBox::up-arrow:disabled, QSpinBox::down-arrow:off,
QSpinBox::down-arrow:disabled { image: none; }
)";

// Looks of an input, normal and under the pointer, and its arrows: up, down, and both under the
// pointer.
Names input(const char* looks, const char* arrows)
{
    const QStringList colors = words(looks);
    const QStringList images = words(arrows);
    return {{"normal", look(colors, 0)},
            {"hover", look(colors, 3)},
            {"hoverGround", "$" + colors.at(3)},
            {"up", images.at(0)},
            {"down", images.at(1)},
            {"upHover", images.at(2)},
            {"downHover", images.at(3)}};
}

constexpr char kDarkArrows[] =
    "top_arrow_tq_iron drop_arrow_tq_iron top_arrow_tq_pearl drop_arrow_tq_pearl";
constexpr char kLight[] = "tq_pearl tq_soil tq_iron  tq_white tq_soil tq_ash";
// These images do not exist; the arrows stay away deliberately.
constexpr char kLightComboArrows[] =
    "combo_arrow_top drop_arrow_black combo_arrow_top drop_arrow_company_color";
constexpr char kLightSpinArrows[] =
    "top_arrow_black drop_arrow_black top_arrow_blue drop_arrow_company_color";

constexpr char kSlider[] = R"(
QSlider { background-color: $transparent; outline: none; }
QSlider::groove { border-radius: 1px; background-color: $soft_black; }
QSlider::groove:horizontal { height: 3px; }
QSlider::groove:vertical { width: 3px; }
QSlider::sub-page:horizontal, QSlider::add-page:vertical { border-radius: 1px;
    background-color: $company_clr; }
QSlider::sub-page:disabled, QSlider::add-page:vertical:disabled { background-color: $soft_black; }
QSlider::handle { width: 12px; height: 12px; border-radius: 6px; image:url(:/images/slider_on.png); }
QSlider::handle:horizontal { margin: -5px 0px; }
QSlider::handle:vertical { margin: 0px -5px; }
QSlider::handle:hover, QSlider::handle:pressed { image:url(:/images/slider_on_h.png); }
QSlider::handle:focus { background-color: $tq_pearl; }
QSlider::handle:disabled { image:url(:/images/slider_off.png); }
)";

constexpr char kScrollBar[] = R"(
QScrollBar { background-color: $tq_soil; border: none; margin: 0px; }
QScrollBar:vertical { width: 10px; }
QScrollBar:horizontal { height: 10px; }
QScrollBar::handle { background-color: $soft_black; border-radius: 3px; }
QScrollBar::handle:vertical { min-height: 32px; margin: 0px 2px; }
QScrollBar::handle:horizontal { min-width: 32px; margin: 2px 0px; }
QScrollBar::handle:hover { background-color: $tq_ash; }
QScrollBar::handle:pressed { background-color: $company_clr; }
QScrollBar::handle:disabled { background-color: $tq_steel; }
QScrollBar::add-line, QScrollBar::sub-line { width: 0px; height: 0px; border: none;
    background: none; }
QScrollBar::add-page, QScrollBar::sub-page { background: none; }
)";

constexpr char kMenu[] = R"(
QMenu { $textFont background-color: $tq_steel; color: $tq_pearl; border: 1px solid $soft_black;
    padding: 4px 0px; }
QMenu::item { background-color: $transparent; padding: 4px 24px 4px 28px; }
QMenu::item:selected { $chosen }
QMenu::item:disabled { background-color: $transparent; color: $concrete; }
QMenu::separator { height: 1px; margin: 4px 8px; background-color: $soft_black; }
QMenu::indicator { margin-left: 8px; }
)";

constexpr char kTabWidget[] = R"(
QTabWidget { background-color: $tq_soil; }
QTabWidget::pane { background-color: $tq_steel; border: 1px solid $black; border-radius: 4px; }
QTabBar { background-color: $transparent; outline: none; }
QTabBar::tab { $buttonFont background-color: $transparent; color: $tq_iron; border: none;
    border-bottom: 2px solid $black; width:%1 px; min-width: 100px; padding: 10px; }
QTabBar::tab:hover { color: $tq_white; border-bottom-color: $tq_ash; }
QTabBar::tab:selected { color: $tq_pearl; border-bottom-color: $company_clr; }
QTabBar::tab:selected:focus { color: $company_clr; }
QTabBar::tab:disabled { color: $concrete; }
)";

constexpr char kListWidget[] = R"(
QListWidget { $textFont background-color: $tq_steel; color: $tq_iron; border: 1px solid $black;
    border-radius: 4px; padding: 4px; outline: none; }
QListWidget:focus { $focus }
QListWidget:disabled { $unavailable }
QListWidget::item { padding: 4px 8px; border-radius: 3px; color: $tq_iron; }
QListWidget::item:hover { background-color: $tq_charcoal; color: $tq_white; }
QListWidget::item:selected { $chosen }
QListWidget::item:disabled { color: $concrete; }
)";

constexpr char kLabel[] = R"(
QLabel { $font border: 0px solid; background-color: $transparent; color: $color; }
QLabel:disabled { color: $concrete; }
)";

// The selector's lower-case "l" is deliberate.
constexpr char kLabelImage[] =
    "Qlabel{border:0px solid;color: transparent;background-color:transparent;image:url(%1);}";

// Grounds of the windows. A plain selector would reach every widget, the image views included, so
// only widgets of exactly QWidget's class, the containers, are painted. The view of a panel is
// black beside its picture: that is no frame on a black ground. A hyphen in the font of texts is
// hardly to be seen, so the remove button has the banner's.
constexpr char kMainWindow[] = R"(
QMainWindow, QDialog, .QWidget { background-color: $tq_soil; color: $tq_iron; }
QWidget:disabled { color: $concrete; }
QWidget#camerasWidgetscrollAreaWidgetContents { background-color: $tq_black; }
QScrollArea { background-color: $transparent; border: none; }
QScrollArea#camerasWidgetsScrollArea { border: 1px solid $tq_black; }
QScrollArea#camerasWidgetsScrollArea:focus { $focus }
QAbstractScrollArea::corner { background-color: $tq_soil; }
VirtualCamHandler { background-color: $tq_steel; border: 1px solid $black; border-radius: 6px; }
$labels
QLabel#cameraTitle { color: $tq_pearl; }
QLabel#noCameraLabel { color: $tq_demo_red; border: 1px solid $red_h; border-radius: 4px; }
QPushButton#RemoveButton { $bannerFont }
$inputs
QToolTip { $smallFont background-color: $tq_charcoal; color: $tq_pearl; border: 1px solid $tq_ash;
    padding: 3px 6px; }
QMessageBox { background-color: $tq_steel; icon-size: 32px;
    messagebox-warning-icon: url(:/images/warning.png);
    messagebox-information-icon: url(:/images/info.png);
    messagebox-question-icon: url(:/images/info.png);
    messagebox-critical-icon: url(:/images/fail.png); }
QMessageBox QDialogButtonBox { dialogbuttonbox-buttons-have-icons: 0; }
QMessageBox QLabel { $textFont background-color: $transparent; color: $tq_pearl; }
QMessageBox QLabel#qt_msgbox_label { min-height: 32px; }
QMessageBox QPushButton { $buttonFont $normal $frame padding: 2px 12px; min-width: 64px;
    min-height: 20px; }
QMessageBox QPushButton:default { $focus }
$states
)";

// Fills in the names of a sheet: those that it sets itself, and the common ones.
QString filled(QString sheet, Names names, const Names& common)
{
    static const QRegularExpression kName("\\$(\\w+)");
    names.insert(common);
    for (auto match = kName.match(sheet); match.hasMatch(); match = kName.match(sheet)) {
        Q_ASSERT(names.contains(match.captured(1)));
        sheet.replace(match.capturedStart(), match.capturedLength(), names[match.captured(1)]);
    }
    return sheet;
}

// Paddings of the stream button, idle and active: with them both texts get the same width, so that
// a row does not move when a stream starts.
std::pair<QString, QString> streamButtonPaddings(const QFont& font)
{
    const QFontMetrics metrics(font);
    const auto width = [&metrics](const char* text) {
        return metrics.size(Qt::TextShowMnemonic, text).width();
    };
    constexpr int kActive = 8;
    const int difference = width("Streaming...") - width("Stream");
    const QString padding = QStringLiteral("1px %1px 2px %2px");
    return {padding.arg(kActive + difference - difference / 2).arg(kActive + difference / 2),
            padding.arg(kActive).arg(kActive)};
}

std::vector<StyleSheet> buildSheets(const Style& style)
{
    const Names common = commonNames(style);
    const auto fill = [&common](const QString& sheet, const Names& own = {}) {
        return filled(sheet, own, common);
    };
    const auto pushButton = [&fill](const char* looks, const char* font, const QString& padding,
                                    const char* width = "1px", const char* accent = "company_clr") {
        Names names = button(looks, "QAbstractButton");
        names.insert({{"font", font},
                      {"width", width},
                      {"padding", padding},
                      {"accent", QString("$") + accent},
                      {"accent_h", QString("$%1_h").arg(accent)}});
        return fill(kButton, names);
    };
    const auto toolGroup = [&fill](const char* outerShape) {
        Names names = button(kOrdinary, "QToolButton");
        names["outerShape"] = outerShape;
        return fill(kToolGroup, names);
    };

    const QString wide = "0px 10px";
    const auto [idle, active] = streamButtonPaddings(style.fontButton);
    const Names boxNames{{"control", "QCheckBox"}, {"padding", "0px 6px 0px 0px"}};
    const QString box = fill(kChoice, boxNames);
    const QString switchBox = box + fill(kSwitch, {{"width", "%1px"}, {"height", "%2px"}});
    const QString spinBox = fill(
        kSpinBox, input("tq_black tq_pearl soft_black  soft_black tq_white tq_ash", kDarkArrows));
    const QString comboBox =
        fill(kComboBox,
             input("tq_charcoal tq_pearl soft_black  soft_black tq_white tq_ash", kDarkArrows));
    const QString menu = fill(QString(kMenu) + kSmallMark, {{"control", "QMenu"}});
    Names window = button(kOrdinary, "QMessageBox QPushButton");
    window.insert({{"labels", kLabel},
                   {"font", "$textFont"},
                   {"color", "$tq_iron"},
                   {"inputs", spinBox + kLineEdit + comboBox + kScrollBar + menu}});

    std::vector<StyleSheet> sheets{
        {&Style::mainWindow, fill(kMainWindow, window)},
        {&Style::pushButton, pushButton(kOrdinary, "$buttonFont", wide) + kSquareSigns},
        {&Style::pushButtonFilled, pushButton(kFilled, "$strongFont", wide)},
        {&Style::pushButtonOutlined, pushButton(kOutlined, "$buttonFont", wide)},
        {&Style::pushButtonOutlinedBold, pushButton(kOutlined, "$headlineFont", wide, "2px")},
        {&Style::pushButtonLink, fill(kLinkButton)},
        // The remove button keeps the font that it has.
        {&Style::removeButton, pushButton(kRemoval, "", wide) + kSquareSigns},
        {&Style::streamButtonIdle, pushButton(kOutlined, "$buttonFont", idle)},
        {&Style::streamButtonActive, pushButton(kFilled, "$buttonFont", active, "1px", "green")},
        {&Style::closeCross, fill(kCloseCross)},
        {&Style::toolGroupLeft, toolGroup(kToolGroupLeft)},
        {&Style::toolGroupMiddle, toolGroup(kToolGroupMiddle)},
        {&Style::toolGroupRight, toolGroup(kToolGroupRight)},
        {&Style::checkBox, switchBox.arg(40).arg(24)},
        {&Style::checkBoxLarge, switchBox.arg(40).arg(40)},
        {&Style::checkBoxSmall, box + fill(kSmallMark, boxNames)},
        {&Style::checkBoxSized, switchBox},
        {&Style::comboBox, comboBox},
        {&Style::comboBoxLight, fill(kComboBox, input(kLight, kLightComboArrows))},
        {&Style::lineEdit, fill(kLineEdit)},
        {&Style::spinBox, spinBox},
        {&Style::spinBoxLight, fill(kSpinBox, input(kLight, kLightSpinArrows))},
        {&Style::slider, fill(kSlider)},
        {&Style::scrollBar, fill(kScrollBar)},
        {&Style::menu, menu},
        {&Style::radioButton, fill(QString(kChoice) + kRadioMark,
                                   {{"control", "QRadioButton"}, {"padding", "1px 6px 1px 2px"}})},
        {&Style::tabWidget, fill(kTabWidget)},
        {&Style::listWidget, fill(QString(kListWidget) + kSmallMark, {{"control", "QListWidget"}})},
        {&Style::labelMuted, fill(kLabel, {{"font", "$lightFont"}, {"color", "$concrete"}})},
        {&Style::labelImage, kLabelImage}};
    for (const Icons& entry : kIcons) {
        sheets.push_back({entry.sheet, fill(kIconButton, icons(entry.images))});
    }
    return sheets;
}

}  // namespace

const std::vector<StyleSheet>& sharedStyleSheets(const Style& style)
{
    static const std::vector<StyleSheet> kSheets = buildSheets(style);
    return kSheets;
}
