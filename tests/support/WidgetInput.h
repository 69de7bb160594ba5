#pragma once
// Acting on real controls the way a user does, with QTest.
#include <QCheckBox>
#include <QLineEdit>
#include <QStyle>
#include <QStyleOptionButton>
#include <QTest>

namespace testsupport {

// Clicks the checkbox's box (its middle may lie beyond the label, where a click misses).
inline void clickCheckbox(QCheckBox* checkbox)
{
    QStyleOptionButton option;
    option.initFrom(checkbox);
    const QRect box = checkbox->style()->subElementRect(QStyle::SE_CheckBoxIndicator, &option, checkbox);
    QTest::mouseClick(checkbox, Qt::LeftButton, Qt::NoModifier, box.center());
}

// Replaces the field's text by typing, then presses Return.
inline void typeAndReturn(QLineEdit* field, const QString& text)
{
    QTest::keyClick(field, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClick(field, Qt::Key_Backspace);
    QTest::keyClicks(field, text);
    QTest::keyClick(field, Qt::Key_Return);
}

}  // namespace testsupport
