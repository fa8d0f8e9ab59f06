#include "app/VTMixedCheckBox.h"

VTMixedCheckBox::VTMixedCheckBox(const QString& text, int tag, QWidget* parent) : QCheckBox(text, parent), m_tag(tag)
{
}

int VTMixedCheckBox::state() const
{
    switch (checkState()) {
    case Qt::PartiallyChecked:
        return kMixed;
    case Qt::Checked:
        return kOn;
    case Qt::Unchecked:
        break;
    }
    return kOff;
}

void VTMixedCheckBox::setState(int state)
{
    // Only a box that shows the mixed state is tristate, so that the user's
    // clicks never lead into it.
    setTristate(state == kMixed);
    setCheckState(state == kMixed ? Qt::PartiallyChecked : (state == kOn ? Qt::Checked : Qt::Unchecked));
}

void VTMixedCheckBox::nextCheckState()
{
    setState(state() == kOn ? kOff : kOn);
}
