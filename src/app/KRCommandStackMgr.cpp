#include "app/KRCommandStackMgr.h"

#include "app/KRCommand.h"

#include <algorithm>

KRCommandStackMgr& KRCommandStackMgr::shareCommandStackMgr()
{
    static KRCommandStackMgr* shared = new KRCommandStackMgr();
    return *shared;
}

brindle::SerialQueue& KRCommandStackMgr::undoQueue()
{
    static brindle::SerialQueue* queue = new brindle::SerialQueue(QStringLiteral("com.tarnwell.brindle.undoqueue"));
    return *queue;
}

brindle::SerialQueue& KRCommandStackMgr::redoQueue()
{
    static brindle::SerialQueue* queue = new brindle::SerialQueue(QStringLiteral("com.tarnwell.brindle.redoqueue"));
    return *queue;
}

void KRCommandStackMgr::addCommand(std::shared_ptr<KRCommand> command, brindle::SerialQueue& withQueue,
                                   CommandList& toArray)
{
    withQueue.sync([&] { toArray.push_back(std::move(command)); });
}

void KRCommandStackMgr::removeCommand(const std::shared_ptr<KRCommand>& command, brindle::SerialQueue& withQueue,
                                      CommandList& toArray)
{
    withQueue.sync([&] { std::erase(toArray, command); });
}

void KRCommandStackMgr::clearCommands(CommandList& commands, brindle::SerialQueue& withQueue)
{
    // Commands are released outside the queue, on the calling thread.
    CommandList released;
    withQueue.sync([&] { released.swap(commands); });
}

std::shared_ptr<KRCommand> KRCommandStackMgr::lastCommand(CommandList& commands, brindle::SerialQueue& queue)
{
    std::shared_ptr<KRCommand> last;
    queue.sync([&] {
        if (!commands.empty())
            last = commands.back();
    });
    return last;
}

bool KRCommandStackMgr::isEmpty(CommandList& commands, brindle::SerialQueue& queue)
{
    bool empty = true;
    queue.sync([&] { empty = commands.empty(); });
    return empty;
}

void KRCommandStackMgr::addUndoCommand(std::shared_ptr<KRCommand> command)
{
    if (!command)
        return;
    addCommand(std::move(command), undoQueue(), m_undoCommands);
    clearCommands(m_redoCommands, redoQueue());
}

void KRCommandStackMgr::undo()
{
    auto command = lastCommand(m_undoCommands, undoQueue());
    if (!command)
        return;
    command->undo();
    addCommand(command, redoQueue(), m_redoCommands);
    removeCommand(command, undoQueue(), m_undoCommands);
}

void KRCommandStackMgr::redo()
{
    auto command = lastCommand(m_redoCommands, redoQueue());
    if (!command)
        return;
    command->redo();
    addCommand(command, undoQueue(), m_undoCommands);
    removeCommand(command, redoQueue(), m_redoCommands);
}

bool KRCommandStackMgr::canUndo()
{
    return !isEmpty(m_undoCommands, undoQueue());
}

bool KRCommandStackMgr::canRedo()
{
    return !isEmpty(m_redoCommands, redoQueue());
}

void KRCommandStackMgr::removeAllCommands()
{
    clearCommands(m_undoCommands, undoQueue());
    clearCommands(m_redoCommands, redoQueue());
}
