#include "platform/DefaultsBinding.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QEvent>
#include <QLabel>
#include <QLineEdit>
#include <QSignalBlocker>
#include <QWidget>

#include "platform/Defaults.h"

namespace platform {

namespace {

// Calls update() now and whenever one of keys changes, for as long as context lives.
template <typename F>
void follow(QObject* context, Defaults& store, const QStringList& keys, F update) {
    update();
    QObject::connect(&store, &Defaults::valueChanged, context, [keys, update](const QString& key) {
        if (keys.contains(key)) update();
    });
}

// Writes false when the user closes the window and true when it is shown.
class VisibilityWatcher : public QObject {
public:
    VisibilityWatcher(QWidget* widget, Defaults& store, QString key)
        : QObject(widget), _store(store), _key(std::move(key)) {}

protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::Show && !_store.boolForKey(_key)) _store.setBool(_key, true);
        if (event->type() == QEvent::Close && _store.boolForKey(_key)) _store.setBool(_key, false);
        return QObject::eventFilter(watched, event);
    }

private:
    Defaults& _store;
    QString _key;
};

}  // namespace

void bindChecked(QAbstractButton* button, Defaults& store, const QString& key) {
    follow(button, store, {key}, [button, &store, key] {
        const QSignalBlocker block(button);
        button->setChecked(store.boolForKey(key));
    });
    QObject::connect(button, &QAbstractButton::toggled, &store,
                     [&store, key](bool checked) { store.setBool(key, checked); });
}

void bindCurrentIndex(QComboBox* combo, Defaults& store, const QString& key) {
    follow(combo, store, {key}, [combo, &store, key] {
        const QSignalBlocker block(combo);
        const qint64 index = store.integerForKey(key);
        combo->setCurrentIndex(index >= 0 && index < combo->count() ? static_cast<int>(index) : -1);
    });
    QObject::connect(combo, &QComboBox::currentIndexChanged, &store,
                     [&store, key](int index) { store.setInteger(key, index); });
}

void bindValue(QDoubleSpinBox* spin, Defaults& store, const QString& key) {
    follow(spin, store, {key}, [spin, &store, key] {
        const QSignalBlocker block(spin);
        spin->setValue(store.floatForKey(key));
    });
    QObject::connect(spin, &QDoubleSpinBox::valueChanged, &store,
                     [&store, key](double value) { store.setFloat(key, static_cast<float>(value)); });
}

void bindText(QLabel* label, Defaults& store, const QString& key) {
    follow(label, store, {key}, [label, &store, key] { label->setText(store.stringForKey(key)); });
}

void bindText(QLineEdit* edit, Defaults& store, const QString& key) {
    follow(edit, store, {key}, [edit, &store, key] {
        const QSignalBlocker block(edit);
        edit->setText(store.stringForKey(key));
    });
    QObject::connect(edit, &QLineEdit::editingFinished, &store,
                     [edit, &store, key] { store.setString(key, edit->text()); });
}

void bindEnabled(QWidget* widget, Defaults& store, const QStringList& keys) {
    QStringList plain;
    for (const QString& k : keys) plain << (k.startsWith(u'!') ? k.mid(1) : k);
    follow(widget, store, plain, [widget, &store, keys] {
        bool enabled = true;
        for (const QString& k : keys) {
            const bool negated = k.startsWith(u'!');
            const bool value = store.boolForKey(negated ? k.mid(1) : k);
            enabled = enabled && (negated ? !value : value);
        }
        widget->setEnabled(enabled);
    });
}

void bindVisible(QWidget* widget, Defaults& store, const QString& key) {
    follow(widget, store, {key}, [widget, &store, key] { widget->setVisible(store.boolForKey(key)); });
    widget->installEventFilter(new VisibilityWatcher(widget, store, key));
}

}  // namespace platform
