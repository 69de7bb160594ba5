#pragma once
// VRAdditions: how an object that goes away detaches itself from the controls that refer to
// it without owning it (a setting, from the checkbox and fields it is bound to).
//
// A control holds three such references, each by a getter and a setter: its target (the
// object its action signals are connected to), its delegate and its data source. They are
// kept on the control by name; replacing one cuts every signal connection from the control to
// the object it referred to, so a control only ever acts on its current target. Clearing a
// reference puts null in it only where it still is the object going away, so a control that
// has meanwhile been bound to another object keeps that one. Main thread only.
#include <QObject>
#include <QPointer>
#include <QWidget>

namespace VRAdditions {

using WeakReferenceGetter = QObject* (*)(const QObject* receiver);
using WeakReferenceSetter = void (*)(QObject* receiver, QObject* object);

// The object the control sends its actions to, or null. Whoever sets the target connects the
// control's action signal itself, with the target as the connection's context object.
QObject* target(const QObject* control);
void setTarget(QObject* control, QObject* target);
QObject* delegate(const QObject* control);
void setDelegate(QObject* control, QObject* delegate);
QObject* dataSource(const QObject* control);
void setDataSource(QObject* control, QObject* dataSource);

// When getter(receiver) is exactly object (the same address, not an equal object), calls
// setter(receiver, nullptr); otherwise does nothing.
void clearWeakReferenceToObject(QObject* receiver, const QObject* object, WeakReferenceSetter setter,
                                WeakReferenceGetter getter);
// Clears the receiver's target, delegate and data source where they are object, then gives up
// the caller's reference to the receiver (receiver becomes null). A null receiver is skipped.
void releaseAndClearWeakReferencesToObject(QPointer<QWidget>& receiver, const QObject* object);

}  // namespace VRAdditions
