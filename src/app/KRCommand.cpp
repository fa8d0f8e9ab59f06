#include "app/KRCommand.h"

std::shared_ptr<KRCommand> KRCommand::removeCommandWithContext(KRCommandContext* context)
{
    return initWithContext<KRRemoveCommand>(context);
}

std::shared_ptr<KRCommand> KRCommand::addCommandWithContext(KRCommandContext* context)
{
    return initWithContext<KRAddCommand>(context);
}

std::shared_ptr<KRCommand> KRCommand::editCommandWithContext(KRCommandContext* context)
{
    return initWithContext<KREditCommand>(context);
}

std::shared_ptr<KRCommand> KRCommand::exchangeCommandWithContext(KRCommandContext* context)
{
    return initWithContext<KRCommand>(context);
}

void KRCommand::beginExcute()
{
    m_beforeExcuteState = m_context->saveContextState(*this);
}

void KRCommand::endExcute()
{
    m_afterExcuteState = m_context->saveContextState(*this);
}

void KRCommand::undo()
{
    if (m_beforeExcuteState)
        m_context->restoreContextState(*m_beforeExcuteState, *this);
}

void KRCommand::redo()
{
    if (m_afterExcuteState)
        m_context->restoreContextState(*m_afterExcuteState, *this);
}
