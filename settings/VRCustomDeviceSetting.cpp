#include "settings/VRCustomDeviceSetting.h"

std::unique_ptr<VRCustomDeviceSetting> VRCustomDeviceSetting::settingWithDevice(std::shared_ptr<LinkDev> device,
                                                                                const QString& domain,
                                                                                QLineEdit* keyField,
                                                                                QLineEdit* valueField)
{
    return std::make_unique<VRCustomDeviceSetting>(std::move(device), domain, keyField, valueField);
}

VRCustomDeviceSetting::VRCustomDeviceSetting(std::shared_ptr<LinkDev> device, const QString& domain,
                                             QLineEdit* keyField, QLineEdit* valueField)
    : VRDeviceSetting(std::move(device), domain, keyField ? keyField->text() : QString(), valueField, keyField)
{
}
