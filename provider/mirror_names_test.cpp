#include "provider/mirror_names.h"

#include <gtest/gtest.h>

namespace halvark::provider {
namespace {

TEST(MirrorNamesTest, EditorTemporariesAndTheProvidersPlacesAreNeverSynced) {
  for (const char* temporary :
       {"Brain/.notes.md.swp", "Brain/.notes.md.swo", "Brain/.swx.swx", "Brain/notes.md~",
        "Brain/a/.~lock.report.odt#", "Brain/~$report.docx", "Brain/.#notes.md", "Brain/#notes.md#",
        "Brain/.goutputstream-Q2W3E4", "Brain/lu3c7n2h.tmp", "Brain/notes.md.kate-swp"}) {
    EXPECT_TRUE(MirrorNames::isEditorTemporary(temporary)) << temporary;
    EXPECT_FALSE(MirrorNames::isSynced(temporary, false)) << temporary;
  }
  for (const char* document : {"Brain/notes.md", "Brain/swp", "Brain/.swp", "Brain/notes.swp",
                               "Brain/#", "Brain/lunch.md", "Brain/4913", "Brain/~notes"}) {
    EXPECT_FALSE(MirrorNames::isEditorTemporary(document)) << document;
    EXPECT_TRUE(MirrorNames::isSynced(document, false)) << document;
  }
  // Editors make no temporary folders: a folder so named is the user's.
  EXPECT_TRUE(MirrorNames::isSynced("Brain/old~", true));

  for (const char* own : {".halvark-staging", ".halvark-staging/abc.partial",
                          ".halvark-moving-0123abcd", "Brain/.halvark-moving-0123abcd/child",
                          ".Trash-1000", ".Trash-1000/files/a.md", ".Trash"}) {
    EXPECT_TRUE(MirrorNames::isProviderOwned(own)) << own;
    EXPECT_FALSE(MirrorNames::isSynced(own, true)) << own;
  }
  for (const char* users : {"Brain", "Brain/a/.halvark-moving-0123abcd", ".Trash-me",
                            "Brain/.halvark-staging", "Brain/.Trash-1000"}) {
    EXPECT_FALSE(MirrorNames::isProviderOwned(users)) << users;
  }
  EXPECT_FALSE(MirrorNames::isSynced("Brain/.DS_Store", false));
}

}  // namespace
}  // namespace halvark::provider
