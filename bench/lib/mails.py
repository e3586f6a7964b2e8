"""Mail as mailboxes hold it, made by a rule: the same in every run."""
import random
import time

WORDS = "harbour wind boat lamp table bread river stone garden letter morning window paper train island".split()
random.seed(1)


def words(count):
    return " ".join(random.choice(WORDS) for _ in range(count))


def message(n):
    """Two forms of the text, some with an attachment, a few kilobytes each."""
    text = "\n\n".join(words(40) for _ in range(random.randrange(2, 12)))
    page = "".join(f"<p>{p}</p>" for p in text.split("\n\n"))
    date = time.strftime("%a, %d %b %Y %H:%M:%S +0000", time.gmtime(1760000000 + n * 60))
    out = [f"From: {random.choice(WORDS).title()} <a{n % 97}@example.org>", "To: me@example.org", f"Subject: {words(5)} {n}",
           f"Date: {date}", f"Message-ID: <bench-{n}@example.org>", "MIME-Version: 1.0",
           'Content-Type: multipart/mixed; boundary="m"', "", "--m", 'Content-Type: multipart/alternative; boundary="a"', "",
           "--a", "Content-Type: text/plain; charset=utf-8", "", text, "--a", "Content-Type: text/html; charset=utf-8", "",
           f"<html><body>{page}</body></html>", "--a--"]
    if n % 5 == 0:
        out += ["--m", "Content-Type: application/pdf", "Content-Transfer-Encoding: base64",
                "Content-Disposition: attachment; filename=f.pdf", "", "QUJD" * 2000]
    return "\n".join(out + ["--m--", ""])
