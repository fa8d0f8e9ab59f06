// The process-wide undo stack: two lists of commands, newest last.
//
// Contract
// - `addUndoCommand` appends to the undo list and empties the redo list.
//   `undo` takes the newest undo command, undoes it, appends it to the redo
//   list and then removes it from the undo list; `redo` mirrors this. With
//   an empty list they do nothing.
// - There is no limit on the number of commands; the stack lives for the
//   whole process and is not cleared when the project is replaced, so undo
//   goes back across New and Open. `removeAllCommands` is for the owner of
//   the commands' context when it goes away.
// - Each list is changed only through a synchronous block on its own serial
//   queue ("com.tarnwell.brindle.undoqueue", "com.tarnwell.brindle.redoqueue"),
//   so it may be read from other threads through those queues; the two
//   queues are never nested. Commands are undone and redone on the calling
//   (main) thread.
#pragma once

#include "foundation/Dispatch.h"

#include <memory>
#include <vector>

class KRCommand;

class KRCommandStackMgr {
public:
    using CommandList = std::vector<std::shared_ptr<KRCommand>>;

    static KRCommandStackMgr& shareCommandStackMgr();

    void addUndoCommand(std::shared_ptr<KRCommand> command);
    void undo();
    void redo();
    bool canUndo();
    bool canRedo();
    void removeAllCommands();

    // The list operations, each one synchronous block on the list's queue.
    void addCommand(std::shared_ptr<KRCommand> command, brindle::SerialQueue& withQueue, CommandList& toArray);
    void removeCommand(const std::shared_ptr<KRCommand>& command, brindle::SerialQueue& withQueue,
                       CommandList& toArray);
    void clearCommands(CommandList& commands, brindle::SerialQueue& withQueue);

private:
    KRCommandStackMgr() = default;
    brindle::SerialQueue& undoQueue();
    brindle::SerialQueue& redoQueue();
    // The newest command of a list, or null; read on the list's queue.
    std::shared_ptr<KRCommand> lastCommand(CommandList& commands, brindle::SerialQueue& queue);
    bool isEmpty(CommandList& commands, brindle::SerialQueue& queue);

    CommandList m_undoCommands;
    CommandList m_redoCommands;
};
