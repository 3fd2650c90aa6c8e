// SPDX-License-Identifier: Apache-2.0
// Fonts and style sheets of the desktop interface.
#pragma once

#include <QFont>
#include <QList>
#include <QString>

/// The look of the interface: every panel creates its own instance, reads the members below and
/// deletes it. All instances are equal and share the texts of their sheets. GUI thread; needs a
/// QGuiApplication.
///
/// A QWidget subclass of our own paints the ground that mainWindow gives its class only with
/// Qt::WA_StyledBackground set.
class Style {
public:
    /// Registers the application fonts, configures the fonts and takes the style sheets over.
    Style();
    ~Style();

    /// Point size of a font, so that it has the same size in pixels on every screen.
    /// @param scale          size times the reference width, from the table of fonts
    /// @param referenceWidth pixels; one of zero or less, as a screen without fonts yields, counts
    ///                       as that of the design
    static int pointSize(float scale, int referenceWidth);

    Style(const Style&) = delete;
    Style& operator=(const Style&) = delete;

    // Windows and buttons.
    QString mainWindow;  ///< MainWindow itself; everything in it inherits: grounds, texts, spin
                         ///< boxes, scroll areas, tool tips, message boxes, menus
    QString pushButton;  ///< ordinary push button: ReloadCamButton, ApplyResFPSButton,
                         ///< addVCamButton, loadVCamButton, ApplyButton, VirtualSNGenerateButton
    QString pushButtonFilled;    ///< push button filled with the accent, for the one main action
    QString pushButtonOutlined;  ///< outlined push button, 1 px
    QString pushButtonOutlinedBold;  ///< outlined push button, 2 px
    QString pushButtonLink;          ///< link-like push button, underlined under the pointer
    QString removeButton;            ///< RemoveButton of an editor
    QString streamButtonIdle;        ///< TestButton while the virtual camera is not streamed
    QString streamButtonActive;      ///< TestButton while the virtual camera is streamed
    QString closeCross;              ///< close cross of a panel
    QString toolGroupLeft;           ///< left piece of a row of joined QToolButtons
    QString toolGroupMiddle;         ///< middle piece of it
    QString toolGroupRight;          ///< right piece of it
    QString iconPlayPause;           ///< icon tool button: checked = playing, shows the pause sign
    QString iconStop;                ///< icon tool button: stop
    QString iconRefresh;             ///< icon tool button: refresh
    QString iconGear;                ///< icon tool button: settings
    QString iconPhoto;               ///< icon tool button: photo
    QString iconVideo;               ///< icon tool button: video, checked = recording
    QString iconRec;                 ///< icon tool button: record, checked = recording
    QString iconAspect;              ///< icon tool button: aspect ratio; has no image
    QString iconFolder;              ///< icon tool button: folder
    QString iconStream;              ///< icon tool button: stream
    QString iconCreateStream;        ///< icon tool button: create a stream, checked = stop it

    // Fonts, in the order of their sizes' table; the number is the place in it.
    QFont fontTitle;     ///< 1: titles of dialogs and groups
    QFont fontHeadline;  ///< 2: emphasised headings
    QFont fontBanner;    ///< 3: banners, upper case
    QFont fontCaption;   ///< 4: captions, upper case
    QFont fontPreview;   ///< 5: the three text lines of CameraWidget
    QFont fontText;      ///< 6: regular text font: noCameraLabel, all titles, combo boxes and line
                         ///< edits
    QFont fontLead;      ///< 7: leading paragraphs
    QFont fontStrong;    ///< 8: emphasis in running text
    QFont fontSmall;     ///< 9: secondary text
    QFont fontFine;      ///< 10: footnotes and units
    QFont fontLight;     ///< 11: light text
    QFont fontButton;    ///< 12: button font: all push buttons, TestButton included
    QFont fontDisplay;   ///< 13: large numbers

    // Inputs, lists and texts.
    QString checkBox;       ///< check box: toggleDaemonButton
    QString checkBoxLarge;  ///< check box with a 40 px indicator
    QString checkBoxSmall;  ///< check box with a 12 px indicator
    QString checkBoxSized;  ///< check box template: %1 width, %2 height of the indicator in pixels
    QString comboBox;       ///< ResolutionComboBox, FPSComboBox, the combo boxes of an editor
    QString comboBoxLight;  ///< combo boxes on a light ground; their arrows have no image
    QString lineEdit;       ///< VirtualCamSNEdit
    QString spinBox;        ///< spin boxes; contained in mainWindow, for use outside of it
    QString spinBoxLight;   ///< spin boxes on a light ground; their arrows have no image
    QString slider;         ///< sliders
    QString scrollBar;      ///< scroll bars of both scroll areas
    QString menu;           ///< pop-up menus
    QString radioButton;    ///< radio buttons
    QString tabWidget;      ///< tab widget template: %1 the width of a tab, pixels
    QString listWidget;     ///< list widgets
    QString labelMuted;     ///< label with secondary text
    QString labelImage;     ///< label template: %1 an image path

    int referenceWidth;  ///< width of "123" in the reference font, pixels; all sizes follow from it

private:
    void registerFonts();
    void configureFonts();

    QList<int> fontIds;  // of the files that this instance registered
};
