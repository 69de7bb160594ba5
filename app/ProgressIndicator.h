#pragma once
// A progress bar that, like a native progress indicator, moves only while told to: an
// indeterminate bar (range 0..0) that is not animating is drawn as an empty track instead of
// Qt's ever-moving busy bar. Main thread only.
#include <QProgressBar>

class ProgressIndicator : public QProgressBar {
    Q_OBJECT
public:
    explicit ProgressIndicator(QWidget* parent = nullptr);

    void setAnimating(bool animating);
    bool isAnimating() const { return _animating; }
    bool isIndeterminate() const { return minimum() == 0 && maximum() == 0; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    bool _animating = false;
};
