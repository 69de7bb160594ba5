#pragma once
// Binds widget properties to keys of a Defaults store. Each binding sets the widget from the
// store at once and follows valueChanged(); two-way bindings also write the user's edits back.
// Main thread only. A binding lives as long as its widget.
#include <QString>
#include <QStringList>

class QAbstractButton;
class QComboBox;
class QLabel;
class QLineEdit;
class QDoubleSpinBox;
class QWidget;

namespace platform {

class Defaults;

// checked <-> flag (two-way)
void bindChecked(QAbstractButton* button, Defaults& store, const QString& key);
// current index <-> integer (two-way)
void bindCurrentIndex(QComboBox* combo, Defaults& store, const QString& key);
// value <-> float (two-way)
void bindValue(QDoubleSpinBox* spin, Defaults& store, const QString& key);
// text <- text (one-way, label)
void bindText(QLabel* label, Defaults& store, const QString& key);
// text <-> text (two-way, written when editing finishes)
void bindText(QLineEdit* edit, Defaults& store, const QString& key);
// enabled <- AND of the flags (one-way); a key prefixed with "!" counts negated
void bindEnabled(QWidget* widget, Defaults& store, const QStringList& keys);
// visible <-> flag (two-way: hiding or closing the window writes false)
void bindVisible(QWidget* widget, Defaults& store, const QString& key);

}  // namespace platform
