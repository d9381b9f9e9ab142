// The host's side of a recipe transfer: it fills its recipe buffer, sets a command
// byte of its memory block under its lock, and watches the driver clear it.
#include "rtuplc_host/host.h"

namespace rtuhost {

void Host::setCommand(size_t byte)
{
    QMutexLocker lock(&memoryLock_);
    memory_[byte] = RTUPLC_RCP_COMMAND;
}

bool Host::commandPending(size_t byte)
{
    QMutexLocker lock(&memoryLock_);
    return memory_[byte] == RTUPLC_RCP_COMMAND;
}

void Host::advanceRecipe()
{
    const auto startUpload = [&] {
        for (const RecipeUnit &u : job_.recipe->units()) {
            for (int w = u.word; w < u.word + u.words; ++w)
                recipeBuffer_[size_t(w)] = 0;
        }
        filledWords_.clear();
        recipeStage_ = RecipeStage::Uploading;
        setCommand(RTUPLC_RCP_UPLOAD_BYTE);
    };
    switch (recipeStage_) {
    case RecipeStage::Waiting:
        // After the writes and a first look at every value, so that the log reads in order.
        if (!writesSettled() || (blocks_ > 0 && passes_ < 1))
            return;
        passes_ = 0;
        passBlocks_.clear();
        if (job_.download) {
            putRecipeValues(*job_.recipe, job_.values, recipeBuffer_);
            events_.note(QStringLiteral("recipe download: %1 values in %2 variables")
                             .arg(job_.recipe->units().size())
                             .arg(job_.recipe->variables().size()));
            recipeStage_ = RecipeStage::Downloading;
            setCommand(RTUPLC_RCP_DOWNLOAD_BYTE);
        } else {
            startUpload();
        }
        break;
    case RecipeStage::Downloading:
        if (commandPending(RTUPLC_RCP_DOWNLOAD_BYTE))
            return;
        if (recipeFailed_) {
            events_.note(QStringLiteral("recipe download: failed"));
            recipeStage_ = RecipeStage::Done;
            return;
        }
        events_.note(QStringLiteral("recipe download: done"));
        if (!job_.uploadPath.isEmpty())
            startUpload();
        else
            recipeStage_ = RecipeStage::Done;
        break;
    case RecipeStage::Uploading:
        if (commandPending(RTUPLC_RCP_UPLOAD_BYTE))
            return;
        finishUpload();
        recipeStage_ = RecipeStage::Done;
        break;
    default:
        break;
    }
}

void Host::finishUpload()
{
    if (recipeFailed_) {
        events_.note(QStringLiteral("recipe upload: failed"));
        return;
    }
    const Recipe &recipe = *job_.recipe;
    RecipeValues values;
    QStringList missing, differing;
    for (size_t i = 0; i < recipe.units().size(); ++i) {
        const RecipeUnit &u = recipe.units()[i];
        bool filled = true;
        for (int w = u.word; w < u.word + u.words; ++w)
            filled = filled && filledWords_.count(w);
        if (!filled) {
            missing << recipe.label(u);
            continue;
        }
        values[int(i)] = recipeValue(u, recipeBuffer_);
        if (job_.download) {
            const auto sent = job_.values.find(int(i));
            if (values[int(i)] != (sent == job_.values.end() ? 0u : sent->second))
                differing << QStringLiteral("%1 sent %2, read back %3")
                                 .arg(recipe.label(u))
                                 .arg(sent == job_.values.end() ? 0u : sent->second)
                                 .arg(values[int(i)]);
        }
    }
    QString error;
    if (!saveRecipeValues(job_.uploadPath, recipe, values, &error)) {
        events_.note(QStringLiteral("recipe upload: %1").arg(error));
        problems_ = true;
        return;
    }
    events_.note(QStringLiteral("recipe upload: %1 values written to %2").arg(values.size()).arg(job_.uploadPath));
    if (!missing.isEmpty())
        events_.note(QStringLiteral("recipe upload: the driver filled no buffer word for %1").arg(missing.join(", ")));
    if (job_.download) {
        if (differing.isEmpty()) {
            events_.note(QStringLiteral("recipe round trip: all %1 values read back as downloaded").arg(values.size()));
        } else {
            events_.note(QStringLiteral("recipe round trip: %1").arg(differing.join("; ")));
            recipeFailed_ = true;
        }
    }
}

} // namespace rtuhost
