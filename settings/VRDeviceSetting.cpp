#include "settings/VRDeviceSetting.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QPalette>

#include "platform/Describe.h"
#include "platform/NotificationCenter.h"
#include "settings/VRAdditions.h"

namespace {

// Text fields take a text colour: the standard one while enabled, the clear colour while
// disabled, so that a disabled field shows no text (nor its placeholder).
void setTextColour(QLineEdit* field, bool enabled)
{
    QPalette palette = field->palette();
    const QPalette standard = QApplication::palette(field);
    for (const QPalette::ColorGroup group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled})
        for (const QPalette::ColorRole role : {QPalette::Text, QPalette::PlaceholderText})
            palette.setColor(group, role, enabled ? standard.color(group, role) : QColor(Qt::transparent));
    field->setPalette(palette);
}

// A checkbox shows -1 as the mixed state, 0 as off and anything else as on; a text field
// shows the value's text (nothing for no value).
void setObjectValue(QWidget* control, const QVariant& value)
{
    if (auto* checkbox = qobject_cast<QCheckBox*>(control)) {
        const qint64 state = value.toLongLong();
        checkbox->setCheckState(state < 0 ? Qt::PartiallyChecked : state == 0 ? Qt::Unchecked : Qt::Checked);
    } else if (auto* field = qobject_cast<QLineEdit*>(control)) {
        field->setText(value.isValid() ? platform::describe(value) : QString());
    }
}

}  // namespace

std::unique_ptr<VRDeviceSetting> VRDeviceSetting::settingWithDevice(std::shared_ptr<LinkDev> device,
                                                                    const QString& domain, const QString& key,
                                                                    QWidget* valueControl, QLineEdit* keyControl)
{
    return std::make_unique<VRDeviceSetting>(std::move(device), domain, key, valueControl, keyControl);
}

VRDeviceSetting::VRDeviceSetting(std::shared_ptr<LinkDev> device, const QString& domain, const QString& key,
                                 QWidget* valueControl, QLineEdit* keyControl)
    : _valueControl(valueControl), _device(std::move(device)), _domain(domain), _key(key)
{
    _delayedUpdate.setSingleShot(true);
    _delayedUpdate.setInterval(0);
    connect(&_delayedUpdate, &QTimer::timeout, this, &VRDeviceSetting::delayedUpdateValueControlFromDevice);

    // A checkbox acts on clicked, which only the user's click or key press emits; stateChanged
    // would also fire when the device's value is shown, and write it straight back.
    VRAdditions::setTarget(valueControl, this);
    if (auto* button = qobject_cast<QAbstractButton*>(valueControl))
        connect(button, &QAbstractButton::clicked, this, &VRDeviceSetting::valueControlAction);
    else if (auto* field = qobject_cast<QLineEdit*>(valueControl))
        // A write only on an explicit Return: editingFinished would also write whatever was
        // half typed when the focus merely moves on (a click elsewhere, Tab, another window).
        connect(field, &QLineEdit::returnPressed, this, &VRDeviceSetting::valueControlAction);

    _keyControl = keyControl;
    if (keyControl) {
        // Reading a key is harmless, so leaving the key field (Return, Tab or a click into the
        // value field) shows the new key's value at once.
        VRAdditions::setTarget(keyControl, this);
        connect(keyControl, &QLineEdit::editingFinished, this, &VRDeviceSetting::keyControlAction);
    }

    connect(this, &VRDeviceSetting::domainChanged, this, &VRDeviceSetting::observeValueForKeyPath);
    connect(this, &VRDeviceSetting::deviceChanged, this, &VRDeviceSetting::observeValueForKeyPath);
    connect(this, &VRDeviceSetting::keyChanged, this, &VRDeviceSetting::observeValueForKeyPath);

    // The sender filter is the device given now; a later setDevice does not move it.
    platform::NotificationCenter::defaultCenter().addObserver(
        this, LinkDevLockdownValueDidChange, _device.get(),
        [this](const platform::Notification& notification) { linkDevLockdownValueDidChange(notification); });
}

VRDeviceSetting::~VRDeviceSetting()
{
    platform::NotificationCenter::defaultCenter().removeObserver(this);
    disconnect(this, &VRDeviceSetting::domainChanged, this, nullptr);
    disconnect(this, &VRDeviceSetting::deviceChanged, this, nullptr);
    disconnect(this, &VRDeviceSetting::keyChanged, this, nullptr);
    _delayedUpdate.stop();
    VRAdditions::releaseAndClearWeakReferencesToObject(_valueControl, this);
    VRAdditions::releaseAndClearWeakReferencesToObject(_keyControl, this);
}

void VRDeviceSetting::setKey(const QString& key)
{
    _key = key;
    emit keyChanged();
}

void VRDeviceSetting::setDomain(const QString& domain)
{
    _domain = domain;
    emit domainChanged();
}

void VRDeviceSetting::setDevice(std::shared_ptr<LinkDev> device)
{
    _device = std::move(device);
    emit deviceChanged();
}

void VRDeviceSetting::observeValueForKeyPath()
{
    _delayedUpdate.start();  // restarting cancels the refresh already requested
}

QVariant VRDeviceSetting::settingObjectValue()
{
    return _device ? _device->lockdownValueForKey(_key, _domain, QVariant()) : QVariant();
}

void VRDeviceSetting::setSettingObjectValue(const QVariant& value)
{
    if (_device)
        _device->setLockdownValue(value, _key, _domain);
}

QVariant VRDeviceSetting::settingObjectValueFromControl()
{
    if (auto* field = qobject_cast<QLineEdit*>(_valueControl))
        return field->text();
    return QVariant();
}

void VRDeviceSetting::updateValueControlFromDevice()
{
    const bool enabled = _device != nullptr;
    for (QWidget* control : {_valueControl.data(), _keyControl.data()}) {
        if (!control)
            continue;
        control->setEnabled(enabled);
        if (auto* field = qobject_cast<QLineEdit*>(control))
            setTextColour(field, enabled);
    }
    setObjectValue(_valueControl, settingObjectValue());
}

void VRDeviceSetting::updateDeviceFromValueControl()
{
    // Writing may ask the user a question; should the settings be rebuilt meanwhile (a device
    // came or went), this setting is gone when the write returns.
    const QPointer<VRDeviceSetting> self(this);
    setSettingObjectValue(settingObjectValueFromControl());
    if (self)
        updateValueControlFromDevice();
}

void VRDeviceSetting::keyControlAction()
{
    if (auto* field = qobject_cast<QLineEdit*>(_keyControl))
        setKey(field->text());
}

void VRDeviceSetting::linkDevLockdownValueDidChange(const platform::Notification& notification)
{
    // Once per entry that is this setting's key; the domain is not compared.
    const QVariantList keys = notification.userInfo.value(QStringLiteral("keys")).toList();
    for (const QVariant& entry : keys)
        if (entry.toString() == _key)
            updateValueControlFromDevice();
}
