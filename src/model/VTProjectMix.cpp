// The project as a pull source: the root of the mix tree.
#include "model/VTProject.h"

#include "model/VTMixContext.h"
#include "model/VTMixOperation.h"
#include "model/VTTrack.h"

brindle::MixSource* VTProject::mixRoot(VTMixContext& context)
{
    auto* root = context.userInfoForKey<std::shared_ptr<brindle::MixSource>>(VTMixContext::kProjectMixOperationKey);
    return root ? root->get() : nullptr;
}

void VTProject::startMixWithContext(VTMixContext& context)
{
    const auto list = tracks();
    if (list->empty() || duration() <= 0)
        return;
    std::shared_ptr<brindle::MixSource> root;
    if (list->size() == 1) {
        root = list->front();
    } else {
        root = VTMixOperation::initWithSource1((*list)[0], (*list)[1]);
        for (size_t index = 2; index < list->size(); ++index)
            root = VTMixOperation::initWithSource1(root, (*list)[index]);
    }
    context.setUserInfo(root, VTMixContext::kProjectMixOperationKey);
    root->startMixWithContext(context);
}

void VTProject::seekToTimestamp(int64_t timestamp, VTMixContext& context)
{
    if (duration() <= 0)
        return;
    context.setTimestampOfTrackStart(timestamp);
    if (auto* root = mixRoot(context))
        root->seekToTimestamp(timestamp, context);
}

int64_t VTProject::nextSample(void* buffer, int64_t bufferCaps, bool* appendBefore, VTMixContext& context)
{
    if (duration() < 1)
        return kEndOfSource;
    auto* root = mixRoot(context);
    return root ? root->nextSample(buffer, bufferCaps, appendBefore, context) : kEndOfSource;
}

bool VTProject::isEndOfSource(VTMixContext& context)
{
    if (duration() < 1)
        return true;
    auto* root = mixRoot(context);
    return root ? root->isEndOfSource(context) : true;
}

void VTProject::endMixWithContext(VTMixContext& context)
{
    auto* slot = context.userInfoForKey<std::shared_ptr<brindle::MixSource>>(VTMixContext::kProjectMixOperationKey);
    if (!slot)
        return;
    // Keep the tree alive while it ends, then drop it from the context.
    std::shared_ptr<brindle::MixSource> root = *slot;
    if (root)
        root->endMixWithContext(context);
    context.removeUserInfoWithKey(VTMixContext::kProjectMixOperationKey);
}
