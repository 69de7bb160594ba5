// Detaching from controls: a reference is cleared only where it is the object going away, and
// clearing a target cuts the control's connections to it.
#include <QLineEdit>
#include <gtest/gtest.h>

#include "settings/VRAdditions.h"

TEST(VRAdditions, ClearsOnlyReferencesToTheObjectItself)
{
    QObject goingAway;
    QObject another;
    const struct {
        const char* name;
        QObject* refersTo;
        bool cleared;
    } cases[] = {
        {"refers to the object", &goingAway, true},
        {"refers to another object", &another, false},
        {"refers to nothing", nullptr, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto* control = new QLineEdit;
        QPointer<QWidget> held(control);
        int actions = 0;
        VRAdditions::setTarget(control, c.refersTo);
        VRAdditions::setDelegate(control, c.refersTo);
        VRAdditions::setDataSource(control, c.refersTo);
        if (c.refersTo)
            QObject::connect(control, &QLineEdit::returnPressed, c.refersTo, [&] { ++actions; });

        VRAdditions::releaseAndClearWeakReferencesToObject(held, &goingAway);

        EXPECT_EQ(held, nullptr) << "the caller's reference is given up";
        QObject* const left = c.cleared ? nullptr : c.refersTo;
        EXPECT_EQ(VRAdditions::target(control), left);
        EXPECT_EQ(VRAdditions::delegate(control), left);
        EXPECT_EQ(VRAdditions::dataSource(control), left);
        emit control->returnPressed();
        EXPECT_EQ(actions, c.refersTo && !c.cleared ? 1 : 0) << "a cleared target hears no more actions";
        delete control;
    }

    // One pair at a time, by its getter and setter.
    QLineEdit control;
    VRAdditions::setTarget(&control, &goingAway);
    VRAdditions::setDelegate(&control, &goingAway);
    VRAdditions::clearWeakReferenceToObject(&control, &goingAway, VRAdditions::setDelegate, VRAdditions::delegate);
    EXPECT_EQ(VRAdditions::delegate(&control), nullptr);
    EXPECT_EQ(VRAdditions::target(&control), &goingAway);
}

TEST(VRAdditions, ANewTargetTakesTheControlOver)
{
    QLineEdit control;
    QObject first;
    QObject second;
    QStringList heard;
    VRAdditions::setTarget(&control, &first);
    QObject::connect(&control, &QLineEdit::returnPressed, &first, [&] { heard << QStringLiteral("first"); });
    VRAdditions::setTarget(&control, &second);
    QObject::connect(&control, &QLineEdit::returnPressed, &second, [&] { heard << QStringLiteral("second"); });
    emit control.returnPressed();
    EXPECT_EQ(heard, QStringList{QStringLiteral("second")});

    // The first, going away later, leaves the second in place.
    QPointer<QWidget> held(&control);
    VRAdditions::releaseAndClearWeakReferencesToObject(held, &first);
    EXPECT_EQ(VRAdditions::target(&control), &second);
}
