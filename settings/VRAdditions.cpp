#include "settings/VRAdditions.h"

#include <QVariant>

namespace VRAdditions {

namespace {

// The references are dynamic properties of the control holding the object's address. They
// never dangle: every object that sets itself as a reference clears it when it goes away.
QObject* reference(const QObject* control, const char* name)
{
    return control ? control->property(name).value<QObject*>() : nullptr;
}

void setReference(QObject* control, const char* name, QObject* object)
{
    if (!control)
        return;
    QObject* previous = reference(control, name);
    if (previous == object)
        return;
    if (previous)
        QObject::disconnect(control, nullptr, previous, nullptr);
    control->setProperty(name, QVariant::fromValue(object));
}

}  // namespace

QObject* target(const QObject* control) { return reference(control, "target"); }
void setTarget(QObject* control, QObject* target) { setReference(control, "target", target); }
QObject* delegate(const QObject* control) { return reference(control, "delegate"); }
void setDelegate(QObject* control, QObject* delegate) { setReference(control, "delegate", delegate); }
QObject* dataSource(const QObject* control) { return reference(control, "dataSource"); }
void setDataSource(QObject* control, QObject* dataSource) { setReference(control, "dataSource", dataSource); }

void clearWeakReferenceToObject(QObject* receiver, const QObject* object, WeakReferenceSetter setter,
                                WeakReferenceGetter getter)
{
    if (receiver && getter(receiver) == object)
        setter(receiver, nullptr);
}

void releaseAndClearWeakReferencesToObject(QPointer<QWidget>& receiver, const QObject* object)
{
    if (!receiver)
        return;
    clearWeakReferenceToObject(receiver, object, setTarget, target);
    clearWeakReferenceToObject(receiver, object, setDelegate, delegate);
    clearWeakReferenceToObject(receiver, object, setDataSource, dataSource);
    receiver = nullptr;
}

}  // namespace VRAdditions
