#pragma once
// VRCustomDeviceSetting: a text value whose key the user types into a key field. Confirming
// the key shows that key's value; confirming the value writes it. Main thread only.
#include "settings/VRDeviceSetting.h"

class VRCustomDeviceSetting : public VRDeviceSetting {
    Q_OBJECT
public:
    // settingWithDevice:domain:keyField:valueField:. The key is the key field's text now.
    static std::unique_ptr<VRCustomDeviceSetting> settingWithDevice(std::shared_ptr<LinkDev> device,
                                                                    const QString& domain, QLineEdit* keyField,
                                                                    QLineEdit* valueField);
    VRCustomDeviceSetting(std::shared_ptr<LinkDev> device, const QString& domain, QLineEdit* keyField,
                          QLineEdit* valueField);
};
