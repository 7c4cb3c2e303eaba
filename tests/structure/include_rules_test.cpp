#include "tests/structure/include_rules.h"

#include <gtest/gtest.h>

namespace {

using structure::findFault;
using structure::findIncludes;
using structure::Include;

/// From the top to the bottom; each room may include all that follow it.
constexpr char const* kFilesFromTopToBottom[] = {
    "host/backups/a.h",  "host/transfer/a.h",
    "host/digest/a.h",   "host/disk/a.h",
    "host/store/a.h",    "host/system/a.h",
    "kelm/kelm.h",       "kelm/disk/a.h",
    "kelm/extent/a.h",   "kelm/graindata/a.h",
    "kelm/metadata/a.h", "kelm/format/a.h",
    "krym/a.h",          "yx/a.h",
};

void expectAllowed(char const* file, char const* target) {
    EXPECT_EQ(findFault({file, 1, target}), std::nullopt) << file << " includes " << target;
}

void expectRefused(char const* file, char const* target) {
    EXPECT_EQ(findFault({file, 1, target}), "the include goes up or sideways")
        << file << " includes " << target;
}

TEST(IncludeRules, TheTreeKeepsToThem) {
    auto const includes = structure::readIncludes(KELM_SOURCE_DIR);
    EXPECT_FALSE(includes.empty());
    for (Include const& include : includes) {
        auto const fault = findFault(include);
        EXPECT_FALSE(fault) << include.file << ":" << include.line << ": includes \""
                            << include.target << "\": " << fault.value_or("");
    }
}

TEST(IncludeRules, AnIncludeMayGoDown) {
    for (auto file = std::begin(kFilesFromTopToBottom); file != std::end(kFilesFromTopToBottom);
         ++file) {
        for (auto target = file + 1; target != std::end(kFilesFromTopToBottom); ++target)
            expectAllowed(*file, *target);
    }
}

TEST(IncludeRules, AnIncludeMayNotGoUp) {
    for (auto target = std::begin(kFilesFromTopToBottom); target != std::end(kFilesFromTopToBottom);
         ++target) {
        for (auto file = target + 1; file != std::end(kFilesFromTopToBottom); ++file)
            expectRefused(*file, *target);
    }
}

TEST(IncludeRules, AnIncludeMayStayInItsRoom) {
    for (char const* file : kFilesFromTopToBottom)
        expectAllowed(file, file);
    expectAllowed("tools/kelm/main.cpp", "tools/kelm/commands.h");
    expectAllowed("compressors/zlib_compressor.cpp", "compressors/zlib_compressor.h");
}

TEST(IncludeRules, ProgramsIncludeAllLibrariesAndNotEachOther) {
    for (char const* program :
         {"tools/kelm/main.cpp", "integrations/nbdkit/plugin.cpp", "examples/create.cpp"}) {
        for (char const* target : kFilesFromTopToBottom)
            expectAllowed(program, target);
        for (char const* file : kFilesFromTopToBottom)
            expectRefused(file, program);
    }
    expectRefused("examples/create.cpp", "tools/kelm/commands.h");
    expectRefused("tools/kelm/main.cpp", "integrations/nbdkit/plugin.h");
    expectRefused("integrations/nbdkit/plugin.cpp", "examples/create.h");
}

TEST(IncludeRules, NeighboursDoNotIncludeEachOther) {
    expectRefused("krym/cipher.h", "compressors/compressors.h");
    expectRefused("host/check/disk_check.cpp", "host/transfer/transfer.h");
    expectRefused("host/content/partition_table.cpp", "host/digest/digest.h");
    expectRefused("host/transfer/transfer.cpp", "host/check/disk_check.h");
    expectRefused("compressors/zlib_compressor.cpp", "krym/krym.h");
}

TEST(IncludeRules, OnlyRoomsOfTheLibraryUseItsExportHeader) {
    for (char const* file : {"kelm/format/a.h", "kelm/metadata/a.h", "kelm/graindata/a.h",
                             "kelm/extent/a.h", "kelm/disk/a.h"})
        expectAllowed(file, "kelm/export.h");
    for (char const* file : {"krym/a.h", "compressors/a.h", "yx/a.h"})
        expectRefused(file, "kelm/export.h");
}

TEST(IncludeRules, TheListedUpwardEdgesAreAllowed) {
    expectAllowed("kelm/graindata/grain.h", "kelm/extent/data_provider.h");
    expectAllowed("kelm/graindata/grain.cpp", "kelm/extent/data_provider.h");
    expectAllowed("kelm/extent/extent_file.h", "kelm/disk/space_info.h");
    expectAllowed("kelm/format/content_id_updater.cpp", "kelm/extent/low_level_file_stream.h");
    expectAllowed("kelm/format/content_id_updater.cpp", "kelm/extent/sparse_extent_file.h");
    expectAllowed("kelm/extent/parent_disk_data_provider.cpp", "kelm/disk/disk.h");
}

TEST(IncludeRules, NearMissesOfTheUpwardEdgesAreRefused) {
    expectRefused("kelm/metadata/grain_table.h", "kelm/extent/data_provider.h");
    expectRefused("kelm/graindata/grain.h", "kelm/extent/extent_file.h");
    expectRefused("kelm/graindata/grain.h", "kelm/disk/space_info.h");
    expectRefused("kelm/metadata/grain_table.cpp", "kelm/extent/low_level_file_stream.h");
    expectRefused("kelm/format/content_id_updater.h", "kelm/extent/sparse_extent_file.h");
    expectRefused("kelm/format/descriptor.cpp", "kelm/extent/sparse_extent_file.h");
    expectRefused("kelm/extent/parent_disk_data_provider.h", "kelm/disk/disk.h");
    expectRefused("kelm/extent/sparse_extent_file.cpp", "kelm/disk/disk.h");
}

TEST(IncludeRules, AQuotedIncludeNamesARoomFromTheRoot) {
    for (char const* target : {"grain_table.h", "../yx/yx.h", "wx/string.h",
                               "tests/support/disks.h", "bench/data.h", "yxtra/yx.h"})
        EXPECT_EQ(findFault({"kelm/metadata/grain_table.cpp", 1, target}),
                  "the target is in no room that others may include")
            << target;
    EXPECT_EQ(findFault({"elsewhere/a.h", 1, "yx/yx.h"}), "the including file is in no room");
}

TEST(IncludeRules, IncludeLinesAreFoundWithTheirNumbers) {
    std::string_view const text = "#pragma once\n"
                                  "#include <vector>\n"
                                  "#include \"yx/yx.h\"\n"
                                  "// #include \"yx/not_this.h\"\n"
                                  "  #  include\t\"krym/krym.h\" // with a comment\r\n"
                                  "\n"
                                  "#include\"yx/base.h\"";
    auto const includes = findIncludes("host/a.cpp", text);
    ASSERT_EQ(includes.size(), 3u);
    EXPECT_EQ(includes[0].file, "host/a.cpp");
    EXPECT_EQ(includes[0].line, 3);
    EXPECT_EQ(includes[0].target, "yx/yx.h");
    EXPECT_EQ(includes[1].line, 5);
    EXPECT_EQ(includes[1].target, "krym/krym.h");
    EXPECT_EQ(includes[2].line, 7);
    EXPECT_EQ(includes[2].target, "yx/base.h");
}

} // namespace
