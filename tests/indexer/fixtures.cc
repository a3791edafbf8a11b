#include "indexer/fixtures.h"

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <iconv.h>

#include <cerrno>
#include <sstream>

namespace kesttest {

void WriteZip(const std::string& path, const ZipMembers& members, bool store,
              const char* passphrase) {
  struct archive* a = archive_write_new();
  ASSERT_NE(a, nullptr);
  ASSERT_EQ(archive_write_set_format_zip(a), ARCHIVE_OK);
  if (store) {
    ASSERT_EQ(archive_write_set_format_option(a, "zip", "compression", "store"), ARCHIVE_OK);
  }
  if (passphrase != nullptr) {
    ASSERT_EQ(archive_write_set_format_option(a, "zip", "encryption", "zipcrypt"), ARCHIVE_OK)
        << archive_error_string(a);
    ASSERT_EQ(archive_write_set_passphrase(a, passphrase), ARCHIVE_OK);
  }
  ASSERT_EQ(archive_write_open_filename(a, path.c_str()), ARCHIVE_OK) << archive_error_string(a);
  for (const auto& member : members) {
    struct archive_entry* e = archive_entry_new();
    archive_entry_set_pathname(e, member.first.c_str());
    archive_entry_set_size(e, static_cast<la_int64_t>(member.second.size()));
    archive_entry_set_filetype(e, AE_IFREG);
    archive_entry_set_perm(e, 0644);
    ASSERT_EQ(archive_write_header(a, e), ARCHIVE_OK) << archive_error_string(a);
    size_t done = 0;
    while (done < member.second.size()) {
      const la_ssize_t n =
          archive_write_data(a, member.second.data() + done, member.second.size() - done);
      ASSERT_GT(n, 0) << archive_error_string(a);
      done += static_cast<size_t>(n);
    }
    archive_entry_free(e);
  }
  ASSERT_EQ(archive_write_close(a), ARCHIVE_OK);
  archive_write_free(a);
}

namespace {

// Half of `s`, moved forward to a character boundary.
size_t Half(const std::string& s) {
  size_t half = s.size() / 2;
  while (half < s.size() && (static_cast<unsigned char>(s[half]) & 0xC0) == 0x80) ++half;
  return half;
}

std::string XmlEscape(const std::string& s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

const char kXmlHead[] = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n";

std::string CoreProps(const std::string& title) {
  return std::string(kXmlHead) +
         "<cp:coreProperties "
         "xmlns:cp=\"http://schemas.openxmlformats.org/package/2006/metadata/core-properties\" "
         "xmlns:dc=\"http://purl.org/dc/elements/1.1/\"><dc:title>" +
         XmlEscape(title) + "</dc:title></cp:coreProperties>";
}

}  // namespace

ZipMembers DocxMembers(const std::vector<std::string>& paragraphs, const std::string& title) {
  std::string body = std::string(kXmlHead) +
                     "<w:document "
                     "xmlns:w=\"http://schemas.openxmlformats.org/wordprocessingml/2006/main\">"
                     "<w:body>";
  for (const std::string& p : paragraphs) {
    // Split in two runs, as word processors do, to check runs join up.
    const size_t half = Half(p);
    body += "<w:p><w:pPr><w:jc w:val=\"left\"/></w:pPr><w:r><w:t xml:space=\"preserve\">" +
            XmlEscape(p.substr(0, half)) +
            "</w:t></w:r><w:r><w:instrText>PAGE</w:instrText></w:r>" + "<w:r><w:t>" +
            XmlEscape(p.substr(half)) + "</w:t></w:r></w:p>";
  }
  body += "</w:body></w:document>";
  ZipMembers members = {
      {"[Content_Types].xml", std::string(kXmlHead) + "<Types/>"},
      {"word/document.xml", body},
      {"word/styles.xml", std::string(kXmlHead) + "<w:styles><w:t>style text</w:t></w:styles>"},
  };
  if (!title.empty()) members.push_back({"docProps/core.xml", CoreProps(title)});
  return members;
}

ZipMembers XlsxMembers(const std::vector<std::string>& shared, const std::string& inline_text,
                       double number) {
  std::string sst = std::string(kXmlHead) +
                    "<sst xmlns=\"http://schemas.openxmlformats.org/spreadsheetml/2006/main\">";
  for (const std::string& s : shared) {
    sst += "<si><t>" + XmlEscape(s) + "</t><rPh><t>PHONETIC</t></rPh></si>";
  }
  sst += "</sst>";
  std::ostringstream num;
  num << number;
  std::string sheet =
      std::string(kXmlHead) +
      "<worksheet xmlns=\"http://schemas.openxmlformats.org/spreadsheetml/2006/main\">"
      "<sheetData><row r=\"1\">";
  for (size_t i = 0; i < shared.size(); ++i) {
    sheet += "<c r=\"A1\" t=\"s\"><v>" + std::to_string(i) + "</v></c>";
  }
  sheet += "<c t=\"inlineStr\"><is><t>" + XmlEscape(inline_text) + "</t></is></c>";
  sheet += "<c><f>SUM(A1:A2)</f><v>" + num.str() + "</v></c></row></sheetData></worksheet>";
  return {
      {"[Content_Types].xml", std::string(kXmlHead) + "<Types/>"},
      {"xl/worksheets/sheet1.xml", sheet},
      {"xl/sharedStrings.xml", sst},
  };
}

ZipMembers PptxMembers(const std::vector<std::string>& slides) {
  ZipMembers members = {{"[Content_Types].xml", std::string(kXmlHead) + "<Types/>"}};
  for (size_t i = slides.size(); i-- > 0;) {
    members.push_back(
        {"ppt/slides/slide" + std::to_string(i + 1) + ".xml",
         std::string(kXmlHead) +
             "<p:sld xmlns:p=\"http://schemas.openxmlformats.org/presentationml/2006/main\" "
             "xmlns:a=\"http://schemas.openxmlformats.org/drawingml/2006/main\"><p:cSld><p:spTree>"
             "<p:sp><p:txBody><a:p><a:r><a:t>" +
             XmlEscape(slides[i]) +
             "</a:t></a:r></a:p></p:txBody></p:sp></p:spTree></p:cSld></p:sld>"});
  }
  return members;
}

ZipMembers OdfMembers(const std::string& body, const std::vector<std::string>& paragraphs,
                      const std::string& title) {
  std::string content =
      std::string(kXmlHead) +
      "<office:document-content xmlns:office=\"urn:oasis:names:tc:opendocument:xmlns:office:1.0\" "
      "xmlns:text=\"urn:oasis:names:tc:opendocument:xmlns:text:1.0\" "
      "xmlns:table=\"urn:oasis:names:tc:opendocument:xmlns:table:1.0\">"
      "<office:automatic-styles/><office:body><office:" +
      body + ">";
  for (const std::string& p : paragraphs) {
    if (body == "spreadsheet") {
      content += "<table:table-row><table:table-cell><text:p>" + XmlEscape(p) +
                 "</text:p></table:table-cell></table:table-row>";
    } else {
      const size_t half = Half(p);
      content += "<text:p>" + XmlEscape(p.substr(0, half)) + "<text:span>" +
                 XmlEscape(p.substr(half)) + "</text:span></text:p>";
    }
  }
  content += "</office:" + body + "></office:body></office:document-content>";
  const std::string mime = body == "text" ? "application/vnd.oasis.opendocument.text"
                           : body == "spreadsheet"
                               ? "application/vnd.oasis.opendocument.spreadsheet"
                               : "application/vnd.oasis.opendocument.presentation";
  ZipMembers members = {{"mimetype", mime}, {"content.xml", content}};
  if (!title.empty()) {
    members.push_back(
        {"meta.xml", std::string(kXmlHead) +
                         "<office:document-meta "
                         "xmlns:office=\"urn:oasis:names:tc:opendocument:xmlns:office:1.0\" "
                         "xmlns:dc=\"http://purl.org/dc/elements/1.1/\"><office:meta><dc:title>" +
                         XmlEscape(title) + "</dc:title></office:meta></office:document-meta>"});
  }
  return members;
}

namespace {

std::string PdfString(const std::string& s) {
  std::string out = "(";
  for (char c : s) {
    if (c == '(' || c == ')' || c == '\\') out += '\\';
    out += c;
  }
  return out + ")";
}

}  // namespace

std::string MakePdf(const std::vector<std::string>& pages, const std::string& title, bool locked) {
  // Objects: 1 catalog, 2 pages, 3 font, 4 info, then a page and its
  // content stream for each page.
  std::vector<std::string> objects;
  std::string kids;
  for (size_t i = 0; i < pages.size(); ++i) kids += std::to_string(5 + 2 * i) + " 0 R ";
  objects.push_back("<< /Type /Catalog /Pages 2 0 R >>");
  objects.push_back("<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(pages.size()) +
                    " >>");
  objects.push_back("<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>");
  objects.push_back("<< /Title " + PdfString(title) + " >>");
  for (size_t i = 0; i < pages.size(); ++i) {
    objects.push_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Contents " +
                      std::to_string(6 + 2 * i) + " 0 R /Resources << /Font << /F1 3 0 R >> >> >>");
    const std::string stream = "BT /F1 12 Tf 72 720 Td " + PdfString(pages[i]) + " Tj ET";
    objects.push_back("<< /Length " + std::to_string(stream.size()) + " >>\nstream\n" + stream +
                      "\nendstream");
  }
  if (locked) {
    // The standard security handler: the empty user password does not
    // match /U, so the document asks for one.
    const std::string junk(64, 'A');
    objects.push_back("<< /Filter /Standard /V 1 /R 2 /O <" + junk + "> /U <" + junk +
                      "> /P -4 >>");
  }
  std::string pdf = "%PDF-1.4\n";
  std::vector<size_t> offsets;
  for (size_t i = 0; i < objects.size(); ++i) {
    offsets.push_back(pdf.size());
    pdf += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
  }
  const size_t xref = pdf.size();
  pdf += "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
  for (size_t off : offsets) {
    char line[32];
    snprintf(line, sizeof(line), "%010zu 00000 n \n", off);
    pdf += line;
  }
  pdf += "trailer\n<< /Size " + std::to_string(objects.size() + 1) + " /Root 1 0 R /Info 4 0 R" +
         (locked ? " /Encrypt " + std::to_string(objects.size()) +
                       " 0 R /ID [<0123456789ABCDEF0123456789ABCDEF> "
                       "<0123456789ABCDEF0123456789ABCDEF>]"
                 : std::string()) +
         " >>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
  return pdf;
}

std::string Encode(const std::string& utf8, const std::string& charset) {
  iconv_t cd = iconv_open(charset.c_str(), "UTF-8");
  EXPECT_NE(cd, reinterpret_cast<iconv_t>(-1)) << charset;
  if (cd == reinterpret_cast<iconv_t>(-1)) return std::string();
  std::string out(utf8.size() * 4 + 16, '\0');
  char* in = const_cast<char*>(utf8.data());
  size_t in_left = utf8.size();
  char* o = &out[0];
  size_t out_left = out.size();
  const size_t rc = iconv(cd, &in, &in_left, &o, &out_left);
  EXPECT_NE(rc, static_cast<size_t>(-1)) << charset << ": " << strerror(errno);
  iconv_close(cd);
  out.resize(out.size() - out_left);
  errno = 0;
  return out;
}

}  // namespace kesttest
