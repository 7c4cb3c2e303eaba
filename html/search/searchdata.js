var indexSectionsWithContent =
{
  0: "abcdefghijklmnoprstuvwyz~",
  1: "abcdefghiklnoprstuwz",
  2: "abcdefghijklmnoprstuvwz~",
  3: "abcdefghijklmnoprstuvwy",
  4: "bdefnrsw",
  5: "acklopstw",
  6: "abcdegiklmnrstu"
};

var indexSectionNames =
{
  0: "all",
  1: "classes",
  2: "functions",
  3: "variables",
  4: "typedefs",
  5: "enums",
  6: "enumvalues"
};

var indexSectionLabels =
{
  0: "All",
  1: "Classes",
  2: "Functions",
  3: "Variables",
  4: "Typedefs",
  5: "Enumerations",
  6: "Enumerator"
};

