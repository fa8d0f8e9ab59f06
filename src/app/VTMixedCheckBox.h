// A check box that can show a mixed state (for a selection whose clips
// differ) but that a click never puts into it: from mixed a click turns it
// on, otherwise a click toggles. `tag` tells the fade-in box (0) from the
// fade-out box (1).
#pragma once

#include <QCheckBox>

class VTMixedCheckBox final : public QCheckBox {
    Q_OBJECT
public:
    // The states as the controller reads them: on 1, off 0, mixed -1.
    enum State { kMixed = -1, kOff = 0, kOn = 1 };

    VTMixedCheckBox(const QString& text, int tag, QWidget* parent = nullptr);

    int tag() const { return m_tag; }
    int state() const;
    void setState(int state);

protected:
    void nextCheckState() override;

private:
    int m_tag;
};
