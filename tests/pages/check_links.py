"""Fails on a picture that is not there and on a link that leads nowhere.

    check_links.py FOLDER     a folder of HTML pages
"""
import html.parser
import pathlib
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    def __init__(self, path):
        super().__init__()
        self.anchors, self.links, self.pictures = set(), [], []
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attributes):
        given = dict(attributes)
        self.anchors |= {given[key] for key in ("id", "name") if given.get(key)}
        if tag == "a" and given.get("href"):
            self.links.append(given["href"])
        if tag in ("img", "object", "iframe"):
            self.pictures.append(given.get("src") or given.get("data") or "")


def faults(folder):
    pages = {path.name: Page(path) for path in folder.glob("*.html")}
    nb_links = nb_pictures = 0
    for name, page in sorted(pages.items()):
        for link in page.links + page.pictures:
            target = urllib.parse.urlsplit(link)
            if target.scheme in ("http", "https", "javascript"):
                continue
            file = urllib.parse.unquote(target.path) or name
            if not (folder / file).is_file():
                yield f"{name}: there is no {link}"
            elif target.fragment and file in pages and \
                    urllib.parse.unquote(target.fragment) not in pages[file].anchors:
                yield f"{name}: there is no such place as {link}"
        nb_links += len(page.links)
        nb_pictures += sum(not link.startswith("doxygen")
                           for link in page.pictures)
    if len(pages) < 50 or nb_links < 1000 or nb_pictures < 19:
        yield f"only {len(pages)} pages, {nb_links} links, {nb_pictures} pictures were read"


if __name__ == "__main__":
    FOUND = list(faults(pathlib.Path(sys.argv[1])))
    print("\n".join(FOUND))
    sys.exit(1 if FOUND else 0)
