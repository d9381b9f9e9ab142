// Recipes: a CSV of variables ("AREA:ADDRESS,LENGTH,OFFSET") that the driver transfers
// as a whole between the controller and the host's recipe buffer, and CSV files of
// their values ("AREA:ADDRESS,VALUE").
#ifndef RTUPLC_HOST_RECIPE_H
#define RTUPLC_HOST_RECIPE_H

#include <QString>
#include <QVector>

#include <map>
#include <vector>

#include "items.h"

namespace rtuhost {

// Words of the host's recipe buffer.
constexpr int kRecipeBufferWords = 32768;
// The driver moves a recipe variable in one request of at most this many units.
constexpr int kMaxRecipeVariableUnits = 128;

struct RecipeVariable {
    QString text;
    int station = 1;
    const Area *area = nullptr;
    int start = 0;
    int length = 0; // bits, or 16-bit registers
    int offset = 0; // first word in the recipe buffer
    int units() const;
    int words() const; // buffer words it takes
};

// One value of a recipe and where the buffer holds it.
struct RecipeUnit {
    Point point;
    int word = 0;  // first buffer word
    int words = 1; // 2 for 32-bit values, low word first
};

class Recipe {
public:
    bool load(const QString &path, int defaultStation, const Catalogue &catalogue, const DriverApi &api,
              QString *error);
    QVector<_RCP_VAR_PRO> driverVariables(int driverId) const;
    const std::vector<RecipeVariable> &variables() const { return variables_; }
    const std::vector<RecipeUnit> &units() const { return units_; }
    // The unit of a point, or -1.
    int unitOf(const Point &p) const;
    QString label(const RecipeUnit &u) const;

private:
    std::vector<RecipeVariable> variables_;
    std::vector<RecipeUnit> units_;
    int defaultStation_ = 1;
};

// Values by unit index.
using RecipeValues = std::map<int, uint32_t>;

// Reads "AREA:ADDRESS,VALUE" lines, each naming a unit of the recipe.
bool loadRecipeValues(const QString &path, const Recipe &recipe, int defaultStation, const Catalogue &catalogue,
                      const DriverApi &api, RecipeValues *values, QString *error);
bool saveRecipeValues(const QString &path, const Recipe &recipe, const RecipeValues &values, QString *error);

void putRecipeValues(const Recipe &recipe, const RecipeValues &values, std::vector<unsigned short> &buffer);
uint32_t recipeValue(const RecipeUnit &unit, const std::vector<unsigned short> &buffer);

} // namespace rtuhost

#endif
