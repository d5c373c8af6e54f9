#!/usr/bin/env python3
"""The pages that gsve writes, in a browser as a person opens it.

page_test.py GSVE CLIP
"""

import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

from selenium import webdriver
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait

GSVE, CLIP = None, None
DEADLINE = 60  # seconds, on a busy machine
SIZES = {"desktop": (1280, 900), "phone": (390, 844)}


def gsve(*arguments):
    result = subprocess.run([GSVE, *map(str, arguments)], capture_output=True, text=True, timeout=DEADLINE, check=False)
    if result.returncode != 0:
        raise AssertionError(f"gsve {arguments}: {result.stderr}")
    return result.stdout


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.directory = pathlib.Path(cls.scratch.name)
        captions = cls.directory / "captions.srt"
        captions.write_text("1\n00:00:01,000 --> 00:00:03,000\nThe city </script> sleeps & <b>dreams\n")
        cls.stream = cls.directory / "a name with </script> & 'quotes'.m2v".replace("/", "_")
        gsve("encode", CLIP, cls.stream, "--captions", captions, "--timecode", "10:00:00:00",
             "--set", "bitrate=4000000", "--quiet")
        cls.page = cls.directory / "page.html"
        gsve("inspect", cls.stream, "--report", f"html={cls.page}")
        cls.report = json.loads(gsve("inspect", cls.stream, "--json", "--buffer", "--pictures"))
        cls.browser = None
        options = webdriver.ChromeOptions()
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.browser = webdriver.Chrome(options=options)

    @classmethod
    def tearDownClass(cls):
        if cls.browser:
            cls.browser.quit()
        cls.scratch.cleanup()

    def open(self, page, size="desktop", scheme="light"):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                     {"width": SIZES[size][0], "height": SIZES[size][1], "deviceScaleFactor": 1,
                                      "mobile": size == "phone"})
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                     {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
        self.browser.execute_cdp_cmd("Network.enable", {})
        self.browser.execute_cdp_cmd("Network.emulateNetworkConditions",
                                     {"offline": True, "latency": 0, "downloadThroughput": 0, "uploadThroughput": 0})
        self.browser.get(page.as_uri())
        WebDriverWait(self.browser, DEADLINE).until(
            lambda browser: browser.execute_script("return document.documentElement.dataset.ready") == "yes")
        self.assertEqual(self.browser.get_log("browser"), [])

    def text(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector).text

    def facts(self):
        names = [e.text for e in self.browser.find_elements(By.CSS_SELECTOR, "dt")]
        values = [e.text for e in self.browser.find_elements(By.CSS_SELECTOR, "dd")]
        return dict(zip(names, values))

    def colours_in(self, chart):
        """How many different colours a chart's canvas has: a blank one has one at most."""
        return self.browser.execute_script("""
            const canvas = document.querySelector(arguments[0] + " canvas");
            const data = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height).data;
            const seen = new Set();
            for (let at = 0; at < data.length; at += 4) seen.add(data.slice(at, at + 4).join());
            return seen.size;""", chart)

    def test_draws_its_charts_on_desktop_and_phone_in_light_and_dark(self):
        for size in SIZES:
            for scheme in ("light", "dark"):
                with self.subTest(size=size, scheme=scheme):
                    self.open(self.page, size, scheme)
                    for chart in ("#pictures", "#bitrate", "#buffer"):
                        self.assertGreater(self.colours_in(chart), 5, chart)
                    width = self.browser.execute_script("return document.documentElement.scrollWidth")
                    self.assertLessEqual(width, SIZES[size][0], "the page is wider than the screen")

    def test_has_the_figures_of_the_json_report(self):
        self.open(self.page)
        pictures, facts = self.report["pictures"], self.facts()
        types = pictures["types"]
        self.assertEqual(facts["Pictures"], f"{pictures['total']} ({types['I']} I, {types['P']} P, {types['B']} B)")
        self.assertEqual(facts["Codec"], f"{self.report['codec']} in {self.report['format']}")
        self.assertEqual(facts["GOPs"], str(len(self.report["gops"])))
        self.assertEqual(facts["First time code"], "10:00:00:00")
        self.assertEqual(facts["Captions"], ", ".join(self.report["line21"][0]["services"]))
        listed = self.report["picture_list"]
        seconds = listed[-1]["seconds"] + 1 / 25
        self.assertEqual(facts["Duration"], f"{seconds:.3f} s")
        rate = 8 * sum(picture["bytes"] for picture in listed) / seconds / 1000
        self.assertEqual(facts["Mean bit rate"], f"{rate:.0f} kbit/s")
        data = self.browser.execute_script("return data")
        for at, picture in enumerate(listed):
            self.assertAlmostEqual(data["pictures"][picture["type"]][at], 8 * picture["bytes"] / 1000, 3)
        account = self.report["buffer"]["accounts"][0]
        self.assertAlmostEqual(data["buffer"]["size"], account["size"] / 1000, 3)
        self.assertTrue(account["holds"])
        self.assertIn("Nothing wrong was found", self.text("#verdict"))

    def test_shows_captions_as_they_are(self):
        self.open(self.page)
        caption = self.report["line21"][0]["captions"][0]
        lane = self.browser.find_element(By.CSS_SELECTOR, ".lane span")
        self.assertEqual(lane.get_attribute("title"), "\n".join(caption["rows"]))
        self.assertIn("</script>", lane.get_attribute("title"))
        self.assertAlmostEqual(float(lane.get_attribute("data-begin")), caption["begin_seconds"], 3)
        self.assertEqual(self.text("#name"), self.stream.name)

    def test_zooms_all_charts_together_by_keyboard_and_buttons(self):
        self.open(self.page)
        ranges = lambda: self.browser.execute_script("return charts.map(c => [c.scales.x.min, c.scales.x.max])")
        whole = ranges()
        self.browser.find_element(By.CSS_SELECTOR, "figure").send_keys("+")
        zoomed = ranges()
        self.assertNotEqual(zoomed[0], whole[0])
        self.assertEqual(zoomed, [zoomed[0]] * 3)
        self.browser.find_element(By.CSS_SELECTOR, "figure").send_keys(Keys.ARROW_RIGHT)
        self.assertGreater(ranges()[0][0], zoomed[0][0])
        self.browser.find_element(By.ID, "all").click()
        self.assertEqual(ranges(), whole)

    def test_of_an_encoding_has_its_quality_loudness_and_losses(self):
        source, out, page = (self.directory / name for name in ("sound.ts", "encoded.ts", "encoded.html"))
        subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", "-i", CLIP, "-f", "lavfi", "-i", "sine=d=7", "-map",
                        "0:v", "-map", "1:a", "-t", "7", "-c:v", "copy", "-c:a", "mp2", str(source)], check=True)
        captions = self.directory / "late.srt"
        captions.write_text("1\n00:00:01,000 --> 00:00:03,000\nSeen\n\n2\n00:01:00,000 --> 00:01:02,000\nToo late\n")
        report = json.loads(gsve("encode", source, out, "--captions", captions, "--quality", "--timecode", "10:00:00:00",
                                 "--codec", "mpeg-2", "--set", "bitrate=4000000", "--set", "min bitrate=0",
                                 "--report", "json", "--report", f"html={page}"))
        self.open(page)
        for chart in ("#pictures", "#bitrate", "#buffer", "#psnr", "#ssim", "#sound figure"):
            self.assertGreater(self.colours_in(chart), 5, chart)
        facts, quality = self.facts(), report["quality"]
        self.assertEqual(facts["Pictures in"], f"{report['pictures']['in']}, 0 skipped, 0 dropped")
        self.assertEqual(facts["PSNR"], f"{quality['psnr']['mean']:.2f} dB, least {quality['psnr']['least']:.2f}")
        self.assertEqual(facts["SSIM"], f"{quality['ssim']['mean']:.4f}, least {quality['ssim']['least']:.4f}")
        data = self.browser.execute_script("return data")
        self.assertEqual(len(data["quality"]["psnr"]), quality["pictures"])
        self.assertAlmostEqual(min(data["quality"]["psnr"]), quality["psnr"]["least"], 2)
        self.assertEqual(data["quality"]["psnr"].index(min(data["quality"]["psnr"])), quality["worst_picture"])
        self.assertIn("LUFS", facts["Loudness of stream 1 (sound, mp2)"])
        self.assertIn("Something is wrong", self.text("#verdict"))
        self.assertIn("1 captions are lost", self.text("#verdict"))
        listed = [row.text for row in self.browser.find_elements(By.CSS_SELECTOR, "#finding-table tbody tr")]
        self.assertIn('00:01:00.000 Lost: the caption of CC1 "Too late"', listed)
        for note in report["notes"]:
            self.assertIn(f"all of it {note}", listed)
        codes = [place.text for place in self.browser.find_elements(By.CSS_SELECTOR, "#gop-lane span")]
        self.assertEqual(codes[0], "10:00:00:00")
        self.assertEqual(len(codes), len(data["gops"]["t"]))
        self.browser.find_element(By.ID, "in").click()
        self.assertLess(len(self.browser.find_elements(By.CSS_SELECTOR, "#gop-lane span")), len(codes))

    def test_says_first_what_is_wrong(self):
        whole = self.stream.read_bytes()
        damaged = self.directory / "damaged.m2v"
        middle = len(whole) // 2
        damaged.write_bytes(whole[:middle] + bytes(20000) + whole[middle + 20000:])
        page = self.directory / "damaged.html"
        gsve("inspect", damaged, "--report", f"html={page}")
        self.open(page)
        self.assertIn("Something is wrong", self.text("#verdict"))
        rows = self.browser.find_elements(By.CSS_SELECTOR, "#finding-table tbody tr")
        self.assertGreater(len(rows), 0)
        self.assertRegex(rows[0].text, r"^00:00:0\d\.\d{3} ")


if __name__ == "__main__":
    GSVE, CLIP = sys.argv[1:3]
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
