#include "SettingsTestbed.h"

#include <QFormLayout>
#include <QTest>
#include <gtest/gtest.h>

#include "support/TestSupport.h"

namespace settingstest {

Controls::Controls()
    : checkbox(new QCheckBox(QStringLiteral("Sync debugging"), &window)),
      keyField(new QLineEdit(&window)),
      valueField(new QLineEdit(&window))
{
    checkbox->setObjectName(QStringLiteral("syncDebugCheckBox"));
    keyField->setObjectName(QStringLiteral("customKeyField"));
    valueField->setObjectName(QStringLiteral("customValueField"));
    auto* layout = new QFormLayout(&window);
    layout->addRow(checkbox);
    layout->addRow(QStringLiteral("Key:"), keyField);
    layout->addRow(QStringLiteral("Value:"), valueField);
    window.show();
    EXPECT_TRUE(QTest::qWaitForWindowExposed(&window));
}

void SettingsTest::seed(const QString& key, const QVariant& value)
{
    dev->setLockdownValue(value, key, kDomain);
    ASSERT_EQ(device->value(kDomain, key), value);
    device->resetCounters();
}

bool settle(const VRDeviceSetting& setting)
{
    return testsupport::runUntil([&] { return !setting.refreshPending(); });
}

}  // namespace settingstest
