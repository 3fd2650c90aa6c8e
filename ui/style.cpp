// SPDX-License-Identifier: Apache-2.0
// Fonts and style sheets of the desktop interface.
#include "ui/style.h"

#include <QFontDatabase>
#include <QFontMetrics>
#include <QStringList>
#include <algorithm>

#include "ui/colors.h"

// The resources are in a static library, whose initialiser is linked only where it is called. The
// macro declares a function and must stand outside of namespaces.
static void initializeResources()
{
    Q_INIT_RESOURCE(settings);
}

namespace {

const QString kRegular = QStringLiteral("NB Akademie Pro Regular");
const QString kMedium = QStringLiteral("NB Akademie Pro Medium");
const QString kMonoRegular = QStringLiteral("NB Akademie Mono Pro Regular");
const QString kMonoMedium = QStringLiteral("NB Akademie Mono Pro Medium");

// Font descriptions are "font-family:", the family, one of these and the size. The family is
// quoted: the parser would take "Medium" for its keyword of that name.
const QString kExtraBoldText = QStringLiteral("; font-weight: ExtraBold; font-size:");
const QString kRegularText = QStringLiteral("; font-weight: Regular; font-size:");
const QString kMediumText = QStringLiteral("; font-weight: Medium; font-size:");
const QString kBoldText = QStringLiteral("; font-weight: Bold; font-size:");
const QString kLightText = QStringLiteral("; font-weight: Light; font-size:");

constexpr int kReferencePointSize = 10;
constexpr int kDesignReferenceWidth = 28;
constexpr qreal kTextSpacing = 102;     // percent
constexpr qreal kCaptionSpacing = 106;  // percent

// Registrations of instances that are gone.
QList<int>& staleFontIds()
{
    static QList<int> ids;
    return ids;
}

int measureReferenceWidth()
{
    QFont font(kMonoMedium, -1, -1, false);
    font.setPointSize(kReferencePointSize);
    return QFontMetrics(font).horizontalAdvance(QStringLiteral("123"));
}

// The second call replaces the first; both are kept deliberately.
void setAntialiasing(QFont& font)
{
    font.setStyleStrategy(QFont::NoSubpixelAntialias);
    font.setStyleStrategy(QFont::PreferAntialias);
}

void setFont(QFont& font, const QString& family, int pointSize, int weight)
{
    font.setFamily(family);
    font.setPointSize(pointSize);
    font.setWeight(weight);
    setAntialiasing(font);
}

QString description(const QFont& font)
{
    QString weight = kRegularText;
    if (font.weight() >= QFont::ExtraBold) {
        weight = kExtraBoldText;
    } else if (font.weight() >= QFont::Bold) {
        weight = kBoldText;
    } else if (font.weight() >= QFont::Medium) {
        weight = kMediumText;
    } else if (font.weight() <= QFont::Light) {
        weight = kLightText;
    }
    return "font-family:\"" + font.family() + "\"" + weight + QString::number(font.pointSize()) +
           "pt;";
}

// One rule: a selector and its declarations, each with its semicolon.
QString rule(const QString& selector, const QString& declarations)
{
    return selector + "{" + declarations + "}";
}

QString image(const QString& name)
{
    return "image:url(:/images/" + name + ".png);";
}

// How a control looks in one state.
struct Look {
    QString ground;
    QString text;
    QString border;
};

QString declarations(const Look& look)
{
    return "background-color:" + look.ground + ";color:" + look.text +
           ";border-color:" + look.border + ";";
}

// How a button looks in all states. Keyboard focus shows as a border in the accent.
struct ButtonLooks {
    Look normal;
    Look hover;
    Look pressed;
    Look checked;
    Look disabled;
    QString focusBorder = clr::company_clr;
};

const Look& disabledLook()
{
    static const Look look{clr::tq_steel, clr::med_black, clr::black};
    return look;
}

QString buttonStates(const QString& selector, const ButtonLooks& looks)
{
    return rule(selector + ":hover", declarations(looks.hover)) +
           rule(selector + ":checked", declarations(looks.checked)) +
           rule(selector + ":checked:hover",
                declarations(looks.checked) + "border-color:" + clr::tq_pearl + ";") +
           rule(selector + ":focus", "border-color:" + looks.focusBorder + ";") +
           rule(selector + ":pressed", declarations(looks.pressed)) +
           rule(selector + ":disabled", declarations(looks.disabled)) +
           rule(selector + ":checked:disabled",
                declarations(looks.disabled) + "background-color:" + clr::soft_black + ";");
}

QString button(const QString& font, const ButtonLooks& looks, int borderWidth,
               const QString& padding)
{
    const QString selector = QStringLiteral("QAbstractButton");
    return rule(selector, font + declarations(looks.normal) +
                              QStringLiteral("border-width:%1px;border-style:solid;"
                                             "border-radius:4px;outline:none;padding:%2;")
                                  .arg(borderWidth)
                                  .arg(padding)) +
           buttonStates(selector, looks);
}

ButtonLooks ordinaryLooks()
{
    return {{clr::tq_charcoal, clr::tq_pearl, clr::soft_black},
            {clr::soft_black, clr::tq_white, clr::tq_ash},
            {clr::tq_soil, clr::company_clr, clr::company_clr},
            {clr::company_clr, clr::tq_soil, clr::company_clr},
            disabledLook()};
}

ButtonLooks filledLooks(const QString& color, const QString& hoverColor)
{
    return {{color, clr::tq_soil, color},
            {hoverColor, clr::tq_soil, hoverColor},
            {clr::tq_soil, color, color},
            {hoverColor, clr::tq_soil, hoverColor},
            disabledLook(),
            clr::tq_pearl};
}

ButtonLooks outlinedLooks(const QString& color)
{
    return {{clr::transparent, color, color},
            {color, clr::tq_soil, color},
            {clr::tq_soil, color, color},
            {color, clr::tq_soil, color},
            {clr::transparent, clr::med_black, clr::soft_black},
            clr::tq_pearl};
}

// Buttons of one sign are square and need all their width for it.
QString squareSigns()
{
    return rule("QAbstractButton[text=\"+\"],QAbstractButton[text=\"-\"]", "padding:0px;");
}

QString linkButton(const QString& font)
{
    const QString selector = QStringLiteral("QAbstractButton");
    return rule(selector, font + "background-color:" + clr::transparent + ";color:" +
                              clr::company_clr + ";border:1px solid " + clr::transparent +
                              ";border-radius:4px;outline:none;padding:0px 2px;") +
           rule(selector + ":hover",
                "color:" + clr::company_clr_h + ";text-decoration: underline;") +
           rule(selector + ":checked", "color:" + clr::tq_pearl + ";") +
           rule(selector + ":focus", "border-color:" + clr::company_clr + ";") +
           rule(selector + ":pressed", "color:" + clr::tq_pearl + ";") +
           rule(selector + ":disabled", "color:" + clr::med_black + ";text-decoration: none;");
}

// A piece of a row of joined buttons. Neighbours share the line between them, so only the first
// piece draws its left edge.
QString toolGroup(const QString& font, const QString& outerShape)
{
    const QString selector = QStringLiteral("QToolButton");
    return rule(selector, font + declarations(ordinaryLooks().normal) +
                              "border-width:1px;border-style:solid;outline:none;"
                              "padding:3px 12px;" +
                              outerShape) +
           buttonStates(selector, ordinaryLooks());
}

// Images of an icon tool button by state; an empty name leaves the state as the one before it.
struct Icons {
    QString normal;
    QString hover;
    QString disabled;
    QString checked;
    QString checkedHover;
};

QString iconButton(const Icons& icons)
{
    const QString selector = QStringLiteral("QToolButton");
    const auto optional = [](const QString& name) {
        return name.isEmpty() ? QString() : image(name);
    };
    return rule(selector, "background-color:" + clr::transparent + ";border:1px solid " +
                              clr::transparent + ";border-radius:4px;outline:none;padding:3px;" +
                              image(icons.normal)) +
           rule(selector + ":hover",
                "background-color:" + clr::tq_charcoal + ";" + optional(icons.hover)) +
           rule(selector + ":checked", optional(icons.checked)) +
           rule(selector + ":checked:hover", optional(icons.checkedHover)) +
           rule(selector + ":focus", "border-color:" + clr::company_clr + ";") +
           rule(selector + ":pressed", "background-color:" + clr::tq_black + ";") +
           rule(selector + ":disabled",
                "background-color:" + clr::tq_steel + ";" + optional(icons.disabled));
}

QString closeCrossSheet()
{
    const QString selector = QStringLiteral("QAbstractButton");
    return rule(selector, "background-color:" + clr::transparent + ";border:1px solid " +
                              clr::transparent + ";border-radius:4px;outline:none;padding:1px;" +
                              image("closeCross")) +
           rule(selector + ":hover", "background-color:" + clr::tq_charcoal +
                                         ";image:url(:/images/closeCross_tq_pearl.png)") +
           rule(selector + ":checked", image("closeCross_tq_pearl")) +
           rule(selector + ":focus", "border-color:" + clr::company_clr + ";") +
           rule(selector + ":pressed",
                "background-color:" + clr::red_h + ";" + image("closeCross_tq_pearl")) +
           rule(selector + ":disabled", "background-color:" + clr::transparent + ";");
}

QString checkBoxFrame(const QString& font)
{
    return rule("QCheckBox", font + "background-color:" + clr::transparent + ";color:" +
                                 clr::tq_iron + ";border:1px solid " + clr::transparent +
                                 ";border-radius:4px;outline:none;padding:0px 6px 0px 0px;"
                                 "spacing:8px;") +
           rule("QCheckBox:hover", "color:" + clr::tq_white + ";") +
           rule("QCheckBox:checked", "color:" + clr::tq_pearl + ";") +
           rule("QCheckBox:focus", "border-color:" + clr::company_clr + ";") +
           rule("QCheckBox:disabled", "color:" + clr::med_black + ";");
}

// A check box drawn as a switch.
QString switchBox(const QString& font, const QString& width, const QString& height)
{
    const QString indicator = QStringLiteral("QCheckBox::indicator");
    return checkBoxFrame(font) + rule(indicator, "width:" + width + ";height:" + height + ";") +
           rule(indicator + ":unchecked", image("check_off")) +
           rule(indicator + ":unchecked:hover", image("check_off_h")) +
           rule(indicator + ":checked", image("check_on")) +
           rule(indicator + ":checked:hover", image("check_on_h")) +
           rule(indicator + ":unchecked:disabled", image("check_na_off")) +
           rule(indicator + ":checked:disabled", image("check_na_on"));
}

// Check marks of 12 px; also those of menus and lists.
QString smallIndicator(const QString& indicator)
{
    // The border of the state that has no image takes the image's place.
    return rule(indicator, "width:12px;height:12px;") +
           rule(indicator + ":unchecked", image("box_off")) +
           rule(indicator + ":unchecked:hover", image("box_off_hover")) +
           rule(indicator + ":checked", image("box_on")) +
           rule(indicator + ":unchecked:disabled",
                "width:10px;height:10px;image:none;border:1px "
                "solid " +
                    clr::soft_black + ";border-radius:2px;") +
           rule(indicator + ":checked:disabled", image("box_u"));
}

QString lineEditSheet(const QString& font)
{
    return rule("QLineEdit", font + "background-color:" + clr::tq_black + ";color:" +
                                 clr::tq_pearl + ";border:1px solid " + clr::soft_black +
                                 ";border-radius:4px;padding:1px 6px;selection-background-color:" +
                                 clr::company_clr + ";selection-color:" + clr::tq_soil + ";") +
           rule("QLineEdit:read-only", "background-color:" + clr::tq_soil + ";") +
           rule("QLineEdit:hover", "border-color:" + clr::tq_ash + ";") +
           rule("QLineEdit:focus", "border-color:" + clr::company_clr + ";") +
           rule("QLineEdit:disabled", declarations(disabledLook()));
}

// Arrow images of a control with a drop-down or with steps.
struct Arrows {
    QString up;
    QString down;
    QString upHover;
    QString downHover;
};

QString comboBoxSheet(const QString& font, const Look& look, const Look& hover,
                      const QString& disabledArrow, const Arrows& arrows)
{
    return rule("QComboBox", font + declarations(look) +
                                 "border-width:1px;border-style:solid;border-radius:4px;"
                                 "padding:2px 4px 2px 8px;outline:none;combobox-popup:0;") +
           // A camera that a row waits for stands there like a choice, but is none.
           rule("QComboBox[waiting=\"true\"]", "color:" + clr::tq_ash + ";") +
           rule("QComboBox:hover", declarations(hover)) +
           rule("QComboBox:focus", "border-color:" + clr::company_clr + ";") +
           rule("QComboBox:on", "border-color:" + clr::company_clr + ";") +
           rule("QComboBox:disabled", declarations(disabledLook())) +
           rule("QComboBox::drop-down",
                "subcontrol-origin:padding;subcontrol-position:center right;width:20px;"
                "border:none;background-color:" +
                    clr::transparent + ";") +
           rule("QComboBox::down-arrow", "width:15px;height:15px;" + image(arrows.down)) +
           rule("QComboBox::down-arrow:hover", image(arrows.downHover)) +
           rule("QComboBox::down-arrow:on", image(arrows.upHover)) +
           rule("QComboBox::down-arrow:disabled", disabledArrow) +
           rule("QComboBox QAbstractItemView",
                font + "background-color:" + look.ground + ";color:" + look.text +
                    ";border:1px solid " + clr::tq_ash + ";outline:none;padding:2px;" +
                    "selection-background-color:" + clr::company_clr +
                    ";selection-color:" + clr::tq_soil + ";") +
           // In line with the text of the closed list.
           rule("QComboBox QAbstractItemView::item",
                "min-height:24px;padding:0px 6px;border:0px solid;background-color:" + look.ground +
                    ";color:" + look.text + ";") +
           rule("QComboBox QAbstractItemView::item:selected",
                "background-color:" + clr::company_clr + ";color:" + clr::tq_soil + ";");
}

QString spinBoxSheet(const QString& font, const Look& look, const Look& hover, const Arrows& arrows)
{
    return rule("QSpinBox",
                font + declarations(look) +
                    "border-width:1px;border-style:solid;border-radius:4px;"
                    "padding:1px 0px 1px 6px;max-height:18px;selection-background-color:" +
                    clr::company_clr + ";selection-color:" + clr::tq_soil + ";") +
           rule("QSpinBox:hover", "border-color:" + hover.border + ";") +
           rule("QSpinBox:focus", "border-color:" + clr::company_clr + ";") +
           rule("QSpinBox:disabled", declarations(disabledLook())) +
           rule("QSpinBox::up-button",
                "subcontrol-origin:padding;subcontrol-position:top right;width:20px;"
                "border:none;border-top-right-radius:3px;background-color:" +
                    clr::transparent + ";") +
           rule("QSpinBox::down-button",
                "subcontrol-origin:padding;subcontrol-position:bottom right;width:20px;"
                "border:none;border-bottom-right-radius:3px;background-color:" +
                    clr::transparent + ";") +
           rule("QSpinBox::up-button:hover,QSpinBox::down-button:hover",
                "background-color:" + hover.ground + ";") +
           rule("QSpinBox::up-button:pressed,QSpinBox::down-button:pressed",
                "background-color:" + clr::tq_ash + ";") +
           rule("QSpinBox::up-arrow", "width:15px;height:15px;" + image(arrows.up)) +
           rule("QSpinBox::down-arrow", "width:15px;height:15px;" + image(arrows.down)) +
           rule("QSpinBox::up-arrow:hover", image(arrows.upHover)) +
           rule("QSpinBox::down-arrow:hover", image(arrows.downHover)) +
           rule(
               "QSpinBox::up-arrow:off,QSpinBox::up-arrow:disabled,"
               "QSpinBox::down-arrow:off,QSpinBox::down-arrow:disabled",
               "image:none;");
}

Arrows darkArrows()
{
    return {"top_arrow_tq_iron", "drop_arrow_tq_iron", "top_arrow_tq_pearl", "drop_arrow_tq_pearl"};
}

// The light variants name images that do not exist; their arrows stay away deliberately.
Arrows lightComboArrows()
{
    return {"combo_arrow_top", "drop_arrow_black", "combo_arrow_top", "drop_arrow_company_color"};
}

Arrows lightSpinArrows()
{
    return {"top_arrow_black", "drop_arrow_black", "top_arrow_blue", "drop_arrow_company_color"};
}

QString sliderSheet()
{
    return rule("QSlider", "background-color:" + clr::transparent + ";outline:none;") +
           rule("QSlider::groove:horizontal",
                "height:3px;border-radius:1px;background-color:" + clr::soft_black + ";") +
           rule("QSlider::groove:vertical",
                "width:3px;border-radius:1px;background-color:" + clr::soft_black + ";") +
           rule("QSlider::sub-page:horizontal,QSlider::add-page:vertical",
                "border-radius:1px;background-color:" + clr::company_clr + ";") +
           rule("QSlider::sub-page:disabled,QSlider::add-page:vertical:disabled",
                "background-color:" + clr::soft_black + ";") +
           rule("QSlider::handle",
                "width:12px;height:12px;border-radius:6px;" + image("slider_on")) +
           rule("QSlider::handle:horizontal", "margin:-5px 0px;") +
           rule("QSlider::handle:vertical", "margin:0px -5px;") +
           rule("QSlider::handle:hover,QSlider::handle:pressed", image("slider_on_h")) +
           rule("QSlider::handle:focus", "background-color:" + clr::tq_pearl + ";") +
           rule("QSlider::handle:disabled", image("slider_off"));
}

QString scrollBarSheet()
{
    return rule("QScrollBar", "background-color:" + clr::tq_soil + ";border:none;margin:0px;") +
           rule("QScrollBar:vertical", "width:10px;") +
           rule("QScrollBar:horizontal", "height:10px;") +
           rule("QScrollBar::handle",
                "background-color:" + clr::soft_black + ";border-radius:3px;") +
           rule("QScrollBar::handle:vertical", "min-height:32px;margin:0px 2px;") +
           rule("QScrollBar::handle:horizontal", "min-width:32px;margin:2px 0px;") +
           rule("QScrollBar::handle:hover", "background-color:" + clr::tq_ash + ";") +
           rule("QScrollBar::handle:pressed", "background-color:" + clr::company_clr + ";") +
           rule("QScrollBar::handle:disabled", "background-color:" + clr::tq_steel + ";") +
           rule("QScrollBar::add-line,QScrollBar::sub-line",
                "width:0px;height:0px;border:none;background:none;") +
           rule("QScrollBar::add-page,QScrollBar::sub-page", "background:none;");
}

QString menuSheet(const QString& font)
{
    return rule("QMenu", font + "background-color:" + clr::tq_charcoal + ";color:" + clr::tq_pearl +
                             ";border:1px solid " + clr::soft_black + ";padding:4px 0px;") +
           rule("QMenu::item",
                "background-color:" + clr::transparent + ";padding:4px 24px 4px 28px;") +
           rule("QMenu::item:selected",
                "background-color:" + clr::company_clr + ";color:" + clr::tq_soil + ";") +
           rule("QMenu::item:disabled",
                "background-color:" + clr::transparent + ";color:" + clr::med_black + ";") +
           rule("QMenu::separator",
                "height:1px;margin:4px 8px;background-color:" + clr::soft_black + ";") +
           rule("QMenu::indicator", "margin-left:8px;") +
           smallIndicator(QStringLiteral("QMenu::indicator"));
}

QString radioButtonSheet(const QString& font)
{
    const QString indicator = QStringLiteral("QRadioButton::indicator");
    return rule("QRadioButton", font + "background-color:" + clr::transparent + ";color:" +
                                    clr::tq_iron + ";border:1px solid " + clr::transparent +
                                    ";border-radius:4px;outline:none;padding:1px 6px 1px 2px;"
                                    "spacing:8px;") +
           rule("QRadioButton:hover", "color:" + clr::tq_white + ";") +
           rule("QRadioButton:checked", "color:" + clr::tq_pearl + ";") +
           rule("QRadioButton:focus", "border-color:" + clr::company_clr + ";") +
           rule("QRadioButton:disabled", "color:" + clr::med_black + ";") +
           rule(indicator, "width:16px;height:16px;") +
           rule(indicator + ":unchecked", image("radio_off")) +
           rule(indicator + ":unchecked:hover", image("radio_off_h")) +
           rule(indicator + ":checked", image("radio_on")) +
           // No image shows an unavailable choice: circles drawn by the toolkit do.
           rule(indicator + ":disabled", "width:12px;height:12px;image:none;border:2px solid " +
                                             clr::soft_black + ";border-radius:8px;") +
           rule(indicator + ":checked:disabled", "background-color:" + clr::med_black + ";");
}

QString tabWidgetSheet(const QString& font)
{
    return rule("QTabWidget", "background-color:" + clr::tq_soil + ";") +
           rule("QTabWidget::pane", "background-color:" + clr::tq_steel + ";border:1px solid " +
                                        clr::black + ";border-radius:4px;") +
           rule("QTabBar", "background-color:" + clr::transparent + ";outline:none;") +
           rule("QTabBar::tab", font + "background-color:" + clr::transparent + ";color:" +
                                    clr::tq_iron + ";border:none;border-bottom:2px solid " +
                                    clr::black + ";width:%1 px;min-width:100px;padding:10px;") +
           rule("QTabBar::tab:hover",
                "color:" + clr::tq_white + ";border-bottom-color:" + clr::tq_ash + ";") +
           rule("QTabBar::tab:selected",
                "color:" + clr::tq_pearl + ";border-bottom-color:" + clr::company_clr + ";") +
           rule("QTabBar::tab:selected:focus", "color:" + clr::company_clr + ";") +
           rule("QTabBar::tab:disabled", "color:" + clr::med_black + ";");
}

QString listWidgetSheet(const QString& font)
{
    return rule("QListWidget", font + "background-color:" + clr::tq_steel +
                                   ";color:" + clr::tq_iron + ";border:1px solid " + clr::black +
                                   ";border-radius:4px;padding:4px;outline:none;") +
           rule("QListWidget:focus", "border-color:" + clr::company_clr + ";") +
           rule("QListWidget:disabled", declarations(disabledLook())) +
           rule("QListWidget::item",
                "padding:4px 8px;border-radius:3px;color:" + clr::tq_iron + ";") +
           rule("QListWidget::item:hover",
                "background-color:" + clr::tq_charcoal + ";color:" + clr::tq_white + ";") +
           rule("QListWidget::item:selected",
                "background-color:" + clr::company_clr + ";color:" + clr::tq_soil + ";") +
           rule("QListWidget::item:disabled", "color:" + clr::med_black + ";") +
           smallIndicator(QStringLiteral("QListWidget::indicator"));
}

QString toolTipSheet(const QString& font)
{
    return rule("QToolTip", font + "background-color:" + clr::tq_charcoal +
                                ";color:" + clr::tq_pearl + ";border:1px solid " + clr::tq_ash +
                                ";padding:3px 6px;");
}

QString messageBoxSheet(const QString& text, const QString& buttonFont)
{
    const QString selector = QStringLiteral("QMessageBox QPushButton");
    return rule("QMessageBox", "background-color:" + clr::tq_steel +
                                   ";icon-size:32px"
                                   ";messagebox-warning-icon:url(:/images/warning.png);"
                                   "messagebox-information-icon:url(:/images/info.png);"
                                   "messagebox-question-icon:url(:/images/info.png);"
                                   "messagebox-critical-icon:url(:/images/fail.png);") +
           rule("QMessageBox QDialogButtonBox", "dialogbuttonbox-buttons-have-icons:0;") +
           rule("QMessageBox QLabel",
                text + "background-color:" + clr::transparent + ";color:" + clr::tq_pearl + ";") +
           rule(selector, buttonFont + declarations(ordinaryLooks().normal) +
                              "border-width:1px;border-style:solid;border-radius:4px;"
                              "outline:none;padding:2px 12px;min-width:64px;min-height:20px;") +
           rule(selector + ":default", "border-color:" + clr::company_clr + ";") +
           buttonStates(selector, ordinaryLooks());
}

QString label(const QString& font, const QString& color)
{
    return rule("QLabel", font + "border:0px solid;background-color:" + clr::transparent +
                              ";color:" + color + ";") +
           rule("QLabel:disabled", "color:" + clr::med_black + ";");
}

// Grounds of the windows. A plain selector would reach every widget, the image views included,
// so only widgets of exactly QWidget's class, the containers, are painted.
QString grounds()
{
    return rule("QMainWindow,QDialog,.QWidget",
                "background-color:" + clr::tq_soil + ";color:" + clr::tq_iron + ";") +
           rule("QWidget:disabled", "color:" + clr::med_black + ";") +
           // The view of a panel is black beside its picture: that is no frame on a black ground.
           rule("QWidget#camerasWidgetscrollAreaWidgetContents",
                "background-color:" + clr::tq_black + ";") +
           rule("QScrollArea", "background-color:" + clr::transparent + ";border:none;") +
           rule("QAbstractScrollArea::corner", "background-color:" + clr::tq_soil + ";") +
           rule("VirtualCamHandler", "background-color:" + clr::tq_steel + ";border:1px solid " +
                                         clr::black + ";border-radius:6px;");
}

QString mainWindowSheet(const Style& style, const QString& text)
{
    return grounds() + label(text, clr::tq_iron) +
           rule("QLabel#cameraTitle", "color:" + clr::tq_pearl + ";") +
           rule("QLabel#cameraTitle,QLabel#modelLabel,QLabel#resolutionLabel",
                "padding-left:8px;") +
           rule("QLabel#noCameraLabel", "color:" + clr::tq_demo_red + ";border:1px solid " +
                                            clr::red_h + ";border-radius:4px;") +
           // A hyphen in the font of texts is hardly to be seen.
           rule("QPushButton#RemoveButton", description(style.fontBanner)) + style.spinBox +
           style.lineEdit + style.comboBox + style.scrollBar + style.menu + style.toolTip +
           style.messageBox;
}

}  // namespace

int Style::pointSize(float scale, int referenceWidth)
{
    const int width = referenceWidth > 0 ? referenceWidth : kDesignReferenceWidth;
    return std::max(1, static_cast<int>(scale / static_cast<float>(width)));
}

Style::Style()
{
    initializeResources();
    registerFonts();
    referenceWidth = measureReferenceWidth();
    buildFonts();
    buildButtonSheets();
    buildIconSheets();
    buildInputSheets();
    buildTextSheets();
    mainWindow = mainWindowSheet(*this, description(fontText));
}

Style::~Style()
{
    staleFontIds() += fontIds;
}

// Every instance registers the same files again, deliberately. The registrations of those that are
// gone are taken back here, together: the toolkit sets all fonts up anew after a change. Kept,
// those of one reload with four cameras would hold 8.5 MB for ever.
void Style::registerFonts()
{
    for (const int id : qAsConst(staleFontIds())) {
        QFontDatabase::removeApplicationFont(id);
    }
    staleFontIds().clear();
    for (const char* file :
         {":/font/Roboto-Medium.ttf", ":/font/Roboto-Bold.ttf", ":/font/Roboto-Regular.ttf",
          ":/font/Helvetica-Neue.ttf", ":/font/NBAkademiePro-Regular.ttf",
          ":/font/NBAkademiePro-Medium.ttf", ":/font/NBAkademieMonoPro-Regular.ttf",
          ":/font/NBAkademieMonoPro-Medium.ttf"}) {
        const int id = QFontDatabase::addApplicationFont(QString::fromLatin1(file));
        if (id >= 0) {
            fontIds.append(id);
        }
    }
    // The files shipped under these names hold open typefaces with their own family names. Where
    // the real families are present they are found first.
    QFont::insertSubstitution(kRegular, QStringLiteral("Geist"));
    QFont::insertSubstitution(kMedium, QStringLiteral("Geist"));
    QFont::insertSubstitution(kMonoRegular, QStringLiteral("Martian Mono"));
    QFont::insertSubstitution(kMonoMedium, QStringLiteral("Martian Mono"));
}

void Style::buildFonts()
{
    const auto size = [this](float scale) { return pointSize(scale, referenceWidth); };
    const auto space = [](QFont& font, qreal percent) {
        font.setLetterSpacing(QFont::PercentageSpacing, percent);
    };
    setFont(fontTitle, kMedium, size(308), QFont::Medium);
    setFont(fontHeadline, kMedium, size(280), QFont::ExtraBold);
    setFont(fontBanner, kMedium, size(420), QFont::Medium);
    fontBanner.setCapitalization(QFont::AllUppercase);
    setFont(fontCaption, kRegular, size(252), QFont::Normal);
    space(fontCaption, kCaptionSpacing);
    fontCaption.setCapitalization(QFont::AllUppercase);
    setFont(fontPreview, kRegular, size(252), QFont::Normal);
    space(fontPreview, kTextSpacing);
    setFont(fontText, kRegular, size(252), QFont::Normal);
    space(fontText, kTextSpacing);
    setFont(fontLead, kRegular, size(336), QFont::Normal);
    setFont(fontStrong, kMedium, size(280), QFont::Bold);
    space(fontStrong, kTextSpacing);
    setFont(fontSmall, kRegular, size(224), QFont::Normal);
    setFont(fontFine, kMonoRegular, size(196), QFont::Normal);
    space(fontFine, kTextSpacing);
    setFont(fontLight, kRegular, size(280), QFont::Light);
    setFont(fontButton, kMedium, size(252), QFont::Medium);
    space(fontButton, kTextSpacing);
    fontDisplay.setFamily(kMonoMedium);
    fontDisplay.setWeight(QFont::Medium);
    fontDisplay.setPointSize(size(756));
    setAntialiasing(fontDisplay);
}

void Style::buildButtonSheets()
{
    const QString font = description(fontButton);
    const QString padding = QStringLiteral("0px 10px");
    pushButton = button(font, ordinaryLooks(), 1, padding) + squareSigns();
    pushButtonFilled = button(description(fontStrong),
                              filledLooks(clr::company_clr, clr::company_clr_h), 1, padding);
    pushButtonOutlined = button(font, outlinedLooks(clr::company_clr), 1, padding);
    pushButtonOutlinedBold =
        button(description(fontHeadline), outlinedLooks(clr::company_clr), 2, padding);
    pushButtonLink = linkButton(font);

    ButtonLooks removal = ordinaryLooks();
    removal.normal.text = clr::red;
    removal.normal.border = clr::red_h;  // the sign alone is small
    removal.hover = {clr::red, clr::tq_soil, clr::red};
    removal.pressed = {clr::red_h, clr::tq_soil, clr::red_h};
    // The remove button keeps the font that it has.
    removeButton = button(QString(), removal, 1, padding) + squareSigns();

    // Both texts of the stream button get the same width, so that a row does not move when a
    // stream starts.
    const QFontMetrics metrics(fontButton);
    const auto width = [&metrics](const char* text) {
        return metrics.size(Qt::TextShowMnemonic, QString::fromLatin1(text)).width();
    };
    const int difference = width("Streaming...") - width("Stream");
    constexpr int kActivePadding = 8;
    const auto streamButton = [&font](const ButtonLooks& looks, int left, int right) {
        return button(font, looks, 1, QStringLiteral("1px %1px 2px %2px").arg(right).arg(left));
    };
    streamButtonIdle =
        streamButton(outlinedLooks(clr::company_clr), kActivePadding + difference / 2,
                     kActivePadding + difference - difference / 2);
    streamButtonActive =
        streamButton(filledLooks(clr::green, clr::green_h), kActivePadding, kActivePadding);

    const QString line = "border-right-color:" + clr::tq_soil + ";";
    toolGroupLeft =
        toolGroup(font, "border-top-left-radius:4px;border-bottom-left-radius:4px;" + line);
    toolGroupMiddle = toolGroup(font, "border-left-width:0px;" + line);
    toolGroupRight = toolGroup(font,
                               "border-left-width:0px;border-top-right-radius:4px;"
                               "border-bottom-right-radius:4px;");
}

void Style::buildIconSheets()
{
    closeCross = closeCrossSheet();
    iconPlayPause = iconButton({"play", "play_h", "", "pause", "pause_h"});
    iconStop = iconButton({"stop", "stop_h", "", "", ""});
    iconRefresh = iconButton({"refresh", "refresh_h", "", "", ""});
    iconGear = iconButton({"gear", "gear_h", "gear_off", "gear_h", "gear_h"});
    iconPhoto = iconButton({"photo", "photo_h", "photo_u", "", ""});
    // The images of "checked" here, and all of the aspect button, do not exist: such buttons show
    // none, deliberately.
    iconVideo = iconButton({"video", "video_h", "video_u", "video_on", "video_on_h"});
    iconAspect = iconButton({"aspect", "aspect_hover", "", "", ""});
    iconRec = iconButton({"rec", "rec_h", "rec_u", "rec_on", "rec_on_h"});
    iconFolder = iconButton({"folder", "folder_h", "folder_u", "", ""});
    iconStream = iconButton({"stream", "stream_h", "", "stream_h", "stream_h"});
    iconCreateStream =
        iconButton({"QuillonCreateStream", "QuillonCreateStream_h", "QuillonCreateStream_u",
                    "QuillonCreateStreamStop", "QuillonCreateStreamStop_h"});
}

void Style::buildInputSheets()
{
    const QString font = description(fontText);
    const Look dark{clr::tq_charcoal, clr::tq_pearl, clr::soft_black};
    const Look darkHover{clr::soft_black, clr::tq_white, clr::tq_ash};
    const Look well{clr::tq_black, clr::tq_pearl, clr::soft_black};
    const Look light{clr::tq_pearl, clr::tq_soil, clr::tq_iron};
    const Look lightHover{clr::tq_white, clr::tq_soil, clr::tq_ash};

    checkBoxSized = switchBox(font, QStringLiteral("%1px"), QStringLiteral("%2px"));
    checkBox = checkBoxSized.arg(40).arg(24);
    checkBoxLarge = switchBox(font, QStringLiteral("40px"), QStringLiteral("40px"));
    checkBoxSmall = checkBoxFrame(font) + smallIndicator(QStringLiteral("QCheckBox::indicator"));
    comboBox = comboBoxSheet(font, dark, darkHover, "image:none;", darkArrows());
    comboBoxLight = comboBoxSheet(font, light, lightHover, "image:none;", lightComboArrows());
    lineEdit = lineEditSheet(font);
    spinBox = spinBoxSheet(font, well, darkHover, darkArrows());
    spinBoxLight = spinBoxSheet(font, light, lightHover, lightSpinArrows());
    slider = sliderSheet();
    scrollBar = scrollBarSheet();
    radioButton = radioButtonSheet(font);
}

void Style::buildTextSheets()
{
    const QString font = description(fontText);
    menu = menuSheet(font);
    tabWidget = tabWidgetSheet(description(fontButton));
    listWidget = listWidgetSheet(font);
    messageBox = messageBoxSheet(font, description(fontButton));
    toolTip = toolTipSheet(description(fontSmall));
    labelText = label(font, clr::tq_iron);
    labelMuted = label(description(fontLight), clr::tq_ash);
    labelGood = label(description(fontStrong), clr::green);
    labelBad = label(description(fontStrong), clr::red);
    // The selector's lower-case "l" is deliberate.
    labelImage = QStringLiteral(
        "Qlabel{border:0px solid;color: transparent;background-color:transparent;image:url(%1);}");
}
