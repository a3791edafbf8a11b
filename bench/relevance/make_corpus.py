#!/usr/bin/python3
"""Writes the relevance benchmark's corpus into an empty folder.

    make_corpus.py [--seed N] [--filler N] [--queries queries.tsv] OUT_DIR

OUT_DIR gets one folder per share: main/ (most files, many languages),
francais/ and deutsch/ (French and German, for per-share word forms).
Planted documents carry the words queries.tsv looks for; filler documents
are random text in ten languages from vocabularies that avoid those words,
so that an expected file competes only with what the case means it to.
Same seed, same files, byte for byte. With --queries, every query term is
checked against the filler (and the negatives against every file), so an
edit of a vocabulary cannot quietly spoil a case.
"""

import argparse
import io
import os
import random
import re
import sys
import unicodedata
import zipfile
from xml.sax.saxutils import escape

# ---------------------------------------------------------------------------
# Planted documents: path -> text. The extension decides the format written.

PLANTED = {
    # Accents and case, Latin, Greek, Cyrillic; in content and in names.
    "main/kitchen/dessert-dimanche.txt":
        "Recette de la crème brûlée, servie au café du marché le dimanche.\n",
    "main/letters/brief-an-herrn-m.txt":
        "Sehr geehrter Herr Müller,\ndie Lieferung nach Köln über die Hauptstraße "
        "verzögert sich um eine Woche.\n",
    "main/travel/viagem.html":
        "Viagem a São Paulo: a reunião com João começou às nove horas.",
    "main/essays/design-notes.md":
        "# Design\n\nA naïve approach to the façade, as Zoë argued at length.\n",
    "main/travel/athens.html":
        "Η Αθήνα είναι η πρωτεύουσα της Ελλάδας και έχει πολλά μουσεία.",
    "main/travel/moscow.txt":
        "Москва — столица России. На площади стоит большая ёлка.\n",
    "main/kitchen/Crêperie-Bretonne.md":
        "Galettes de sarrasin et cidre brut, le samedi soir.\n",
    "main/kitchen/boulangerie-notes.txt":
        "La pâte repose une nuit au frais avant la cuisson du pain.\n",
    "main/kitchen/charcuterie-notes.txt":
        "Le pâté de campagne se sert froid avec des cornichons.\n",
    # Word forms (English, the default language).
    "main/finance/audit-guidelines.txt":
        "Guidelines for financial reporting: the auditors reviewed every ledger.\n",
    "main/transport/tramway.txt":
        "Three cities joined the tramway programme last spring.\n",
    "main/science/soil-lab.txt":
        "The analyses of the soil samples were delayed by the storm.\n",
    "main/science/birds.md":
        "She studied the migrating geese along the estuaries of the coast.\n",
    "main/sports/marathon.txt":
        "The runners were running through the hills at dawn.\n",
    "main/history/valley-history.txt":
        "A short history of the valley: coal mining shaped the town for a century.\n",
    "main/history/town-history.txt":
        "A short history of the town: the coal mines shaped the valley for a century.\n",
    # Word forms of French and German, each in a share of its own.
    "francais/cuisine/marche.odt":
        "Nous mangeons des pommes achetées au marché couvert.",
    "deutsch/berichte/jahresbericht.txt":
        "Die Kinder spielten im Garten hinter den Häusern.\n",
    # Chinese, Japanese, Korean: words inside sentences, and in a name.
    "main/notes/meeting-zh.txt":
        "我们明天在北京开会，讨论新的项目计划。\n",
    "main/notes/kaigi-ja.docx":
        "東京の会議室で新しいプロジェクトについて話し合いました。",
    "main/notes/seoul-ko.txt":
        "어제 서울에서 회의를 했습니다. 도서관은 문을 닫았습니다.\n",
    "main/notes/会議メモ.txt":
        "Action items for next week.\n",
    "main/notes/trip-plan.txt":
        "Itinerary: fly to 大阪 then take the 新幹線 to 京都 for two nights.\n",
    # File names split into words (content unrelated to the name).
    "main/finance/QuarterlyReport_2024-Q3.final.pdf":
        "Figures of the third period, approved by the board.",
    "main/projects/meetingNotes-ProjectAtlas.md":
        "Attendees and decisions.\n",
    "main/hr/hr_onboarding_checklist_v2.docx":
        "Welcome! Collect your badge on day one.",
    "main/photos/IMG_20230815_sunset.jpg": None,
    "main/code/XMLHttpRequestHelper.js":
        "export function send(url) { return fetch(url); }\n",
    "main/finance/sales-forecast.2025.csv":
        "region,amount\nnorth,10\nsouth,12\n",
    # Prefixes.
    "main/science/observing-log.txt":
        "The telescope was calibrated before the eclipse.\n",
    # Files inside folders named by the query.
    "main/Observatorium/inventory.txt":
        "Mirrors, eyepieces and a red torch.\n",
    "main/projects/Atlantis-2024/budget.txt":
        "Costs of the second phase.\n",
    "main/Rezepte/Suppen/linsen.txt":
        "Linsen mit Speck und Essig.\n",
    "main/旅行/itinerary.txt":
        "Day one: museum. Day two: harbour.\n",
    # Phrases and operators.
    "main/stories/aurora.txt":
        "The northern lights danced above the frozen fjord while the ferry waited.\n",
    "main/stories/winter.txt":
        "The fjord was not frozen this winter, and the lights in the north were dim.\n",
    "main/kitchen/risotto.txt":
        "Risotto with saffron and parmesan.\n",
    "main/kitchen/buns.txt":
        "Swedish saffron buns for Lucia day.\n",
    "main/kitchen/vanilla.txt":
        "Vanilla custard with a pinch of nutmeg.\n",
    # Ranking: the document about the word against ones that mention it.
    "main/garden/orchid-care.txt":
        "Orchid care: water the orchid weekly, as an orchid needs bright, indirect "
        "light. Repot the orchid every two years.\n",
    "main/garden/greenhouse.txt":
        "The greenhouse holds tomatoes, peppers, basil, ferns and lemon trees along "
        "the south wall, cucumbers in the middle bed, one orchid near the door, "
        "and seed trays on the shelves above the potting bench.\n",
    "main/garden/spring-list.txt":
        "Spring list: tulips, ferns, an orchid for the hall, compost, twine, stakes, "
        "netting, gloves, labels and a new watering can.\n",
    "main/coast/lighthouse.txt":
        "The lighthouse keeper's log: the lighthouse lamp was cleaned and the "
        "lighthouse stairs painted.\n",
    "main/coast/harbour-walk.txt":
        "A walk around the harbour: the fish market, the old customs house, the "
        "boat yard, the lighthouse at the end of the pier, the chandlery and the "
        "café by the slipway, two hours at an easy pace.\n",
    "main/geo/glacier.md":
        "# Glacier\n\nThe glacier retreats a little every summer; the glacier "
        "lake below it grows.\n",
    "main/geo/alpine-walks.txt":
        "Alpine walks: the ridge path, the lake circuit, the hut climb, the pass "
        "crossing with a view of the glacier, the forest trail and the gorge, "
        "each with its own map, times and warnings.\n",
}

# ---------------------------------------------------------------------------
# Filler vocabularies. None holds a word that a query looks for.

VOCAB = {
    "en": """apple basket blanket bottle bridge butter candle canvas carpet castle cattle
        chalk cherry cloud copper cotton cradle daisy desert dinner doorway dragon engine
        feather fence forest ginger granite gravel hammer harvest helmet honey island
        jacket kettle ladder lantern marble meadow mitten needle ocean olive orange paddle
        paper pebble pencil pepper pillow pocket puzzle quilt rabbit ribbon river rocket
        saddle salmon sandal shadow shelter silver spoon squirrel stable stone sugar table
        thimble thunder timber tunnel turtle umbrella velvet wagon walnut window wool
        yellow zebra morning evening quiet gentle heavy little narrow simple slow warm wide
        carry build paint watch listen follow gather open climb fold borrow wander whisper
        bake sing swim write the a of and with on under near beside""".split(),
    "es": """casa perro gato libro mesa ventana puerta camino montaña río árbol flor cielo
        nube lluvia sol luna estrella mar playa arena piedra fuego agua tierra viento campo
        pueblo calle plaza pan leche queso manzana naranja limón azúcar sal té vino música
        canción baile fiesta niño niña abuelo familia amigo corazón jardín invierno verano
        otoño primavera mañana noche tarde rápido lento grande pequeño alegre triste bonito
        nuevo viejo caminar cantar leer escribir dormir comer beber nadar jugar el la los
        las de en con y""".split(),
    "pt": """coração pão mão irmão avó maçã rua janela porta livro caderno praia areia chuva
        vento floresta pássaro peixe barco navio ponte relógio cadeira sapato camisa chapéu
        açúcar feijão arroz leite queijo obrigado saudade alegria trabalho escola cidade
        canção amanhã noite verão inverno bonito pequeno grande devagar depressa o a os as
        de em com e""".split(),
    "fr": """maison jardin fenêtre porte livre chat chien oiseau arbre fleur forêt rivière
        montagne ciel nuage pluie soleil lune étoile mer plage sable pierre feu eau terre
        vent été hiver printemps automne matin soir nuit école ami famille travail chanson
        musique lait fromage sucre thé vin beurre bateau pont château rue grand petit beau
        nouveau vieux lentement vite élève fête tête hôpital île garçon le la les de en
        avec et""".split(),
    "de": """Baum Blume Wald Fluss Berg Himmel Wolke Regen Sonne Mond Stern Meer Strand
        Sand Stein Feuer Wasser Erde Wind Sommer Winter Frühling Herbst Morgen Abend Nacht
        Schule Freund Familie Arbeit Lied Musik Brot Milch Käse Zucker Tee Wein Boot Brücke
        Schloss Dorf groß klein schön neu alt langsam schnell Tür Fenster Vogel Katze Hund
        Apfel Bäume Vögel Übung Öl Größe der die das und mit im am""".split(),
    "el": """θάλασσα ήλιος βουνό δέντρο σπίτι δρόμος πόλη νερό ψωμί κρασί φίλος παιδί
        σχολείο βιβλίο γράμμα ουρανός σύννεφο βροχή άνεμος λουλούδι κήπος πόρτα παράθυρο
        τραπέζι καρέκλα γάτα σκύλος πουλί ψάρι καράβι λιμάνι νησί ακτή πέτρα φως νύχτα
        μέρα πρωί βράδυ καλοκαίρι χειμώνας άνοιξη φθινόπωρο μεγάλος μικρός όμορφος
        γρήγορα αργά τραγούδι μουσική χορός ελιά λάδι μέλι τυρί και με στο""".split(),
    "ru": """дом окно дверь улица город река лес поле гора море небо солнце луна звезда
        ветер дождь снег зима лето весна осень утро вечер ночь книга письмо стол стул
        кошка собака птица рыба хлеб молоко сыр чай сахар яблоко друг семья школа работа
        песня музыка мост корабль берег камень огонь вода земля большой маленький
        красивый быстро медленно читать писать гулять петь всё ещё берёза и в на""".split(),
    "zh": """苹果 学校 老师 学生 图书 电脑 手机 朋友 家庭 工作 城市 公园 河流 山脉 天空
        太阳 月亮 星星 花园 音乐 电影 咖啡 茶叶 米饭 面条 早上 晚上 春天 夏天 秋天
        冬天 天气 下雨 雪花 汽车 飞机 医院 银行 超市 厨房 窗户 桌子 椅子 衣服 鞋子
        颜色 红色 绿色 快乐 安静 漂亮 重要 简单 喜欢 知道 觉得 学习 休息 散步 唱歌
        跳舞""".split(),
    "ja": """猫 犬 桜 山 川 海 空 雨 雪 花 本 学校 先生 友達 電車 駅 料理 朝ご飯 昼ご飯
        晩ご飯 天気 季節 春 夏 秋 冬 公園 散歩 音楽 映画 写真 手紙 時計 机 椅子 窓 部屋
        台所 庭 毎日 時々 きれい 静か 楽しい 大きい 小さい""".split(),
    "ko": """학교 친구 가족 사랑 음식 커피 바다 하늘 구름 바람 나무 꽃 산 강 집 문 창문 책
        편지 음악 영화 사진 시계 의자 책상 부엌 공원 산책 아침 저녁 여름 겨울 봄 가을
        날씨 고양이 강아지""".split(),
}
JA_PARTICLES = "の を に で が は と も".split()
JA_ENDINGS = ["です。", "でした。", "を見ました。", "が好きです。", "に行きました。"]
# Korean particles by whether the word ends in a consonant: (after a vowel, after a consonant).
KO_PARTICLES = [("는", "은"), ("가", "이"), ("를", "을"), ("와", "과"), ("에", "에")]
KO_ENDINGS = ["좋아합니다.", "봤습니다.", "갔습니다.", "있습니다."]
# How many filler files of each language go to the share main/ (the rest of
# --filler is split between francais/ and deutsch/).
MAIN_SHARE = {"en": 90, "es": 30, "pt": 24, "el": 24, "ru": 24, "zh": 30, "ja": 30, "ko": 24,
              "fr": 12, "de": 12}


def fold(text):
    """Lower case without accents, as a user who types neither would see it."""
    text = unicodedata.normalize("NFKD", text.casefold())
    return "".join(c for c in text if not unicodedata.combining(c))


def is_cjk(ch):
    o = ord(ch)
    return (0x3040 <= o <= 0x30FF or 0x3400 <= o <= 0x9FFF or 0xAC00 <= o <= 0xD7AF
            or 0xF900 <= o <= 0xFAFF)


def sentence(rng, lang):
    words = rng.choices(VOCAB[lang], k=rng.randint(6, 14))
    if lang == "zh":
        return "".join(words) + "。"
    if lang == "ja":
        parts = []
        for w in words[:-1]:
            parts += [w, rng.choice(JA_PARTICLES)]
        return "".join(parts) + words[-1] + rng.choice(JA_ENDINGS)
    if lang == "ko":
        parts = [w + rng.choice(KO_PARTICLES)[(ord(w[-1]) - 0xAC00) % 28 != 0]
                 for w in words[:-1]]
        return " ".join(parts + [rng.choice(KO_ENDINGS)])
    text = " ".join(words)
    return text[0].upper() + text[1:] + "."


def filler_text(rng, lang):
    paragraphs = []
    for _ in range(rng.randint(1, 4)):
        paragraphs.append(" ".join(sentence(rng, lang) for _ in range(rng.randint(2, 6))))
    return "\n\n".join(paragraphs) + "\n"


# ---------------------------------------------------------------------------
# Formats, written with the standard library only.

ZIP_TIME = (2020, 1, 1, 0, 0, 0)


def zip_bytes(members):
    """A zip of (name, text) pairs; the first is stored, the rest deflated."""
    buf = io.BytesIO()
    with zipfile.ZipFile(buf, "w") as z:
        for i, (name, text) in enumerate(members):
            info = zipfile.ZipInfo(name, ZIP_TIME)
            info.compress_type = zipfile.ZIP_STORED if i == 0 else zipfile.ZIP_DEFLATED
            z.writestr(info, text)
    return buf.getvalue()


def docx(text):
    paras = "".join('<w:p><w:r><w:t xml:space="preserve">%s</w:t></w:r></w:p>' % escape(p)
                    for p in text.split("\n") if p)
    return zip_bytes([
        ("[Content_Types].xml",
         '<?xml version="1.0" encoding="UTF-8" standalone="yes"?>'
         '<Types xmlns="http://schemas.openxmlformats.org/package/2006/content-types">'
         '<Default Extension="rels" '
         'ContentType="application/vnd.openxmlformats-package.relationships+xml"/>'
         '<Default Extension="xml" ContentType="application/xml"/>'
         '<Override PartName="/word/document.xml" ContentType="application/'
         'vnd.openxmlformats-officedocument.wordprocessingml.document.main+xml"/></Types>'),
        ("_rels/.rels",
         '<?xml version="1.0" encoding="UTF-8" standalone="yes"?>'
         '<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">'
         '<Relationship Id="rId1" Type="http://schemas.openxmlformats.org/officeDocument/'
         '2006/relationships/officeDocument" Target="word/document.xml"/></Relationships>'),
        ("word/document.xml",
         '<?xml version="1.0" encoding="UTF-8" standalone="yes"?>'
         '<w:document xmlns:w="http://schemas.openxmlformats.org/wordprocessingml/2006/main">'
         "<w:body>%s</w:body></w:document>" % paras),
    ])


def odt(text):
    office = "urn:oasis:names:tc:opendocument:xmlns:office:1.0"
    paras = "".join("<text:p>%s</text:p>" % escape(p) for p in text.split("\n") if p)
    return zip_bytes([
        ("mimetype", "application/vnd.oasis.opendocument.text"),
        ("META-INF/manifest.xml",
         '<?xml version="1.0" encoding="UTF-8"?>'
         '<manifest:manifest xmlns:manifest="urn:oasis:names:tc:opendocument:xmlns:manifest:1.0">'
         '<manifest:file-entry manifest:full-path="/" '
         'manifest:media-type="application/vnd.oasis.opendocument.text"/>'
         '<manifest:file-entry manifest:full-path="content.xml" manifest:media-type="text/xml"/>'
         '<manifest:file-entry manifest:full-path="meta.xml" manifest:media-type="text/xml"/>'
         "</manifest:manifest>"),
        ("content.xml",
         '<?xml version="1.0" encoding="UTF-8"?><office:document-content xmlns:office="%s" '
         'xmlns:text="urn:oasis:names:tc:opendocument:xmlns:text:1.0" office:version="1.2">'
         "<office:body><office:text>%s</office:text></office:body></office:document-content>"
         % (office, paras)),
        ("meta.xml",
         '<?xml version="1.0" encoding="UTF-8"?><office:document-meta xmlns:office="%s" '
         'office:version="1.2"><office:meta/></office:document-meta>' % office),
    ])


def pdf(text):
    """One page of Helvetica; the text must be ASCII."""
    lines = []
    for para in text.split("\n"):
        while para:
            cut = para[:80].rfind(" ") if len(para) > 80 else len(para)
            cut = cut if cut > 0 else len(para)
            lines.append(para[:cut])
            para = para[cut:].lstrip()
    shown = " T* ".join("(%s) Tj" % re.sub(r"([()\\])", r"\\\1", l) for l in lines)
    stream = ("BT /F1 11 Tf 14 TL 72 760 Td %s ET" % shown).encode("ascii")
    objects = [
        b"<< /Type /Catalog /Pages 2 0 R >>",
        b"<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
        b"<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] "
        b"/Resources << /Font << /F1 4 0 R >> >> /Contents 5 0 R >>",
        b"<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >>",
        b"<< /Length %d >>\nstream\n%s\nendstream" % (len(stream), stream),
    ]
    out = bytearray(b"%PDF-1.4\n")
    offsets = []
    for i, body in enumerate(objects, 1):
        offsets.append(len(out))
        out += b"%d 0 obj\n%s\nendobj\n" % (i, body)
    xref = len(out)
    out += b"xref\n0 %d\n0000000000 65535 f \n" % (len(objects) + 1)
    out += b"".join(b"%010d 00000 n \n" % o for o in offsets)
    out += b"trailer\n<< /Size %d /Root 1 0 R >>\nstartxref\n%d\n%%%%EOF\n" % (
        len(objects) + 1, xref)
    return bytes(out)


def html(text, title):
    body = "".join("<p>%s</p>\n" % escape(p) for p in text.split("\n\n") if p.strip())
    return ('<!DOCTYPE html>\n<html><head><meta charset="utf-8"><title>%s</title></head>\n'
            "<body>\n%s</body></html>\n" % (escape(title), body))


JPEG = bytes.fromhex("ffd8ffe000104a46494600010100000100010000ffd9")


def encode(path, text, title):
    ext = path.rsplit(".", 1)[-1].lower()
    if text is None:
        return JPEG
    if ext == "docx":
        return docx(text)
    if ext == "odt":
        return odt(text)
    if ext == "pdf":
        return pdf(text)
    if ext == "html":
        return html(text, title).encode("utf-8")
    return text.encode("utf-8")


# ---------------------------------------------------------------------------


def filler(rng, count):
    """(path, text) of the filler files: main/ gets MAIN_SHARE per language,
    francais/ and deutsch/ share what is left of `count`."""
    rest = max(0, count - sum(MAIN_SHARE.values()))
    plan = [("main/archive", lang, n) for lang, n in MAIN_SHARE.items()]
    plan += [("francais/carnets", "fr", rest // 2), ("deutsch/notizen", "de", rest - rest // 2)]
    # Formats by weight; PDF only for languages Helvetica can show in ASCII.
    formats = ["txt"] * 10 + ["md"] * 3 + ["html"] * 3 + ["docx", "odt"]
    out = []
    for top, lang, n in plan:
        names = [w.lower() for w in VOCAB[lang] if len(w) >= 3 or is_cjk(w[0])]
        for i in range(n):
            ext = rng.choice(formats + (["pdf"] if lang == "en" else []))
            name = "%s-%03d.%s" % (rng.choice(names), i, ext)
            sub = rng.choice(names)
            out.append(("%s/%s/%s/%s" % (top, lang, sub, name), filler_text(rng, lang)))
    return out


def query_terms(query):
    """The words of a query, without operators, quotes and wildcards."""
    words = re.sub(r'["()]', " ", query).split()
    return [w.lstrip("+-").rstrip("*") for w in words
            if w not in ("AND", "OR", "NOT") and w.lstrip("+-").rstrip("*")]


def tokens(text):
    return set(re.findall(r"\w+", fold(text)))


def check(queries_path, planted, fillers):
    """Complains about a query term found in filler text, and about a
    negative query whose words all occur somewhere."""
    filler_text_all = fold("\n".join(t + "\n" + p for p, t in fillers))
    filler_tokens = tokens(filler_text_all)
    everything = fold("\n".join(
        p + "\n" + (t or "") for p, t in list(planted.items()) + fillers))
    problems = []
    with open(queries_path, encoding="utf-8") as f:
        for line in f:
            if not line.strip() or line.startswith("#"):
                continue
            case, query, _, _, mode = line.rstrip("\n").split("\t")
            for term in query_terms(query):
                t = fold(term)
                if any(is_cjk(c) for c in t):
                    bad = t in filler_text_all
                else:
                    stem = t[:max(4, len(t) - 2)]
                    bad = any(tok.startswith(stem) for tok in filler_tokens)
                if bad:
                    problems.append("%s: %r occurs in filler text" % (query, term))
            if case == "negatives" and all(
                    fold(t) in everything for t in query_terms(query)) and '"' not in query:
                problems.append("%s: every word occurs in the corpus" % query)
            if '"' in query and mode == "none":
                phrase = fold(query.strip('"'))
                if phrase in everything:
                    problems.append("%s: the phrase occurs in the corpus" % query)
    return problems


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--filler", type=int, default=340, help="filler files (default 340)")
    ap.add_argument("--queries", help="queries.tsv to check the corpus against")
    ap.add_argument("out")
    args = ap.parse_args()
    rng = random.Random(args.seed)
    fillers = filler(rng, args.filler)
    if args.queries:
        problems = check(args.queries, PLANTED, fillers)
        if problems:
            sys.exit("make_corpus: the corpus would spoil queries:\n  " + "\n  ".join(problems))
    if os.path.exists(args.out) and os.listdir(args.out):
        sys.exit("make_corpus: %s is not empty" % args.out)
    for path, text in list(PLANTED.items()) + fillers:
        full = os.path.join(args.out, path)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        title = os.path.splitext(os.path.basename(path))[0]
        with open(full, "wb") as f:
            f.write(encode(path, text, title))
    print("%d files (%d planted, %d filler) in %s"
          % (len(PLANTED) + len(fillers), len(PLANTED), len(fillers), args.out))


if __name__ == "__main__":
    main()
