// kest-demo-files DIR: writes one document of each format the indexer reads
// with a body of its own (PDF, OOXML, ODF), for the demo and end-to-end tests.
// Plain text, Markdown, HTML and source files are simple enough for a shell.
#include <cstdio>
#include <fstream>
#include <string>

#include "indexer/fixtures.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: kest-demo-files DIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  {
    std::ofstream pdf(dir + "/annual-report.pdf", std::ios::binary);
    pdf << kesttest::MakePdf({"Annual report: revenue grew in every region.",
                              "Outlook: the observatory project starts next spring."},
                             "Annual report");
    if (!pdf) return 1;
  }
  kesttest::WriteZip(dir + "/meeting-minutes.docx",
                     kesttest::DocxMembers({"Minutes of the planning meeting.",
                                            "Decision: migrate the archive to the new volume."},
                                           "Meeting minutes"));
  kesttest::WriteZip(dir + "/budget.xlsx",
                     kesttest::XlsxMembers({"Hardware", "Travel", "Telescope"}, "forecast", 4200));
  kesttest::WriteZip(dir + "/roadmap.pptx",
                     kesttest::PptxMembers({"Roadmap 2027", "Milestone: search everywhere"}));
  kesttest::WriteZip(
      dir + "/letter.odt",
      kesttest::OdfMembers("text", {"Dear customer, your parcel is on its way."}, "Letter"));
  kesttest::WriteZip(dir + "/inventory.ods",
                     kesttest::OdfMembers("spreadsheet", {"Inventory of lenses and mirrors"}));
  kesttest::WriteZip(dir + "/training.odp",
                     kesttest::OdfMembers("presentation", {"Training: safe handling of lasers"}));
  return 0;
}
