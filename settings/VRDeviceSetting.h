#pragma once
// VRDeviceSetting: binds one control of the settings window to one lockdown value of a device,
// named by a domain and a key.
//
// The control shows the device's value, is disabled (a text field showing no text) when
// there is no device, writes the value to the device when the user acts on it, and refreshes
// itself when the device announces that the value changed (LinkDevLockdownValueDidChange
// with the key in "keys", once per matching entry) and at the next turn of the event loop
// after any change of domain, device or key (several changes in a row refresh once).
// Creating a setting does not read the device; its owner calls updateValueControlFromDevice.
//
// The setting becomes the target of its controls: a checkbox acts when clicked by the user
// (not on every state change, so showing the device's value never writes it back), a value
// field when Return is pressed, a key field when its editing ends. Destroying the setting
// detaches it from both controls, where they still point at it.
//
// Thread affinity: main thread only (controls, timer, and the change notification, which the
// settings' own writes post on the main thread).
#include <QLineEdit>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QVariant>
#include <QWidget>
#include <memory>

#include "device/LinkDev.h"

namespace platform {
struct Notification;
}

class VRDeviceSetting : public QObject {
    Q_OBJECT
public:
    // settingWithDevice:domain:key:valueControl:keyControl:. The controls belong to their
    // window; the setting refers to them while they exist. keyControl may be null.
    static std::unique_ptr<VRDeviceSetting> settingWithDevice(std::shared_ptr<LinkDev> device, const QString& domain,
                                                              const QString& key, QWidget* valueControl,
                                                              QLineEdit* keyControl);
    VRDeviceSetting(std::shared_ptr<LinkDev> device, const QString& domain, const QString& key, QWidget* valueControl,
                    QLineEdit* keyControl);
    ~VRDeviceSetting() override;

    QString key() const { return _key; }
    void setKey(const QString& key);
    QString domain() const { return _domain; }
    void setDomain(const QString& domain);
    std::shared_ptr<LinkDev> device() const { return _device; }
    void setDevice(std::shared_ptr<LinkDev> device);
    QWidget* valueControl() const { return _valueControl; }

    // The device's value (empty without a device or value).
    virtual QVariant settingObjectValue();
    // Writes the value to the device.
    virtual void setSettingObjectValue(const QVariant& value);
    // What the value control holds now (a field's text).
    virtual QVariant settingObjectValueFromControl();
    // Enables or disables the controls for the device and shows settingObjectValue.
    virtual void updateValueControlFromDevice();
    // Writes the control's value, then shows what the device really holds.
    void updateDeviceFromValueControl();
    void delayedUpdateValueControlFromDevice() { updateValueControlFromDevice(); }

    void valueControlAction() { updateDeviceFromValueControl(); }
    // The key becomes the key field's text (the key change then refreshes the value).
    void keyControlAction();
    void linkDevLockdownValueDidChange(const platform::Notification& notification);

    // True while a refresh requested by a domain, device or key change waits for the loop.
    bool refreshPending() const { return _delayedUpdate.isActive(); }

signals:
    void domainChanged();
    void deviceChanged();
    void keyChanged();

protected:
    QPointer<QWidget> _valueControl;
    QPointer<QWidget> _keyControl;
    std::shared_ptr<LinkDev> _device;
    QString _domain;
    QString _key;

private:
    // Cancels a pending refresh and requests it again at the next turn of the event loop.
    void observeValueForKeyPath();

    QTimer _delayedUpdate;  // single-shot, zero delay
};
