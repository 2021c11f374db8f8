#!/usr/bin/env python3
"""usage: dashboard_test.py SANDBOX TESTS_CAPI SCENARIO: the dashboard in headless Chromium."""
import itertools, json, os, shutil, ssl, subprocess, sys, tempfile, urllib.error, urllib.request

SKIPPED = 77  # ctest's SKIP_RETURN_CODE
TOKEN = "browser-test-token"
TITLE = "<img src=x onerror=alert(1)>"


def main(sandbox, client, scenario):
    chromium, driver_path = shutil.which("chromium"), shutil.which("chromedriver")
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        from selenium.webdriver.common.by import By
        from selenium.webdriver.support.ui import WebDriverWait
    except ImportError:
        driver_path = None
    if not chromium or not driver_path:
        print("SKIPPED: needs chromium, chromium-driver and python3-selenium (scripts/setup installs them)")
        return SKIPPED
    with tempfile.TemporaryDirectory(prefix="palomir-dashboard-") as directory:
        command = [sandbox, "--quiet", "--data-dir", directory + "/data", "--scenario", scenario, "--admin-token", TOKEN]
        server = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        options = webdriver.ChromeOptions()
        options.binary_location = chromium
        for flag in ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                     "--disable-background-networking", "--disable-component-update", "--disable-sync",
                     "--window-size=1400,1100", "--user-data-dir=" + directory + "/profile"]:
            options.add_argument(flag)
        options.accept_insecure_certs = True  # the sandbox's CA is trusted by the library only
        browser = None
        try:
            banner = (line.strip() for line in itertools.takewhile(lambda l: not l.startswith("A new CA"), server.stdout))
            port = next(int(line.split()[1]) for line in banner if line.startswith("port:"))
            site, ca = f"https://localhost:{port}", directory + "/data/bundle/ca.pem"
            tls = ssl.create_default_context(cafile=ca)

            def fetch(path):
                try:
                    with urllib.request.urlopen(site + path, context=tls) as answer:
                        return answer.status, answer.read()
                except urllib.error.HTTPError as error:
                    return error.code, error.read()

            browser = webdriver.Chrome(options=options, service=Service(driver_path))
            wait = WebDriverWait(browser, 15)
            element = lambda id: browser.find_element(By.ID, id)

            # The token is required, by the page and by the routes behind it.
            assert fetch("/")[0] == 401 and fetch("/_sandbox/requests")[0] == 401
            browser.get(site + "/")
            assert "need the token" in browser.find_element(By.TAG_NAME, "body").text
            browser.get(f"{site}/?token={TOKEN}")

            # A bad key is named and the served scenario stays.
            before = fetch(f"/_sandbox/scenario?token={TOKEN}")[1]
            wait.until(lambda _: '"notes"' in element("scenario-editor").get_attribute("value"))
            edited = json.loads(element("scenario-editor").get_attribute("value"))
            edited["configuration"]["notes"][0]["identifier"] = "not-a-uuid"
            browser.execute_script("arguments[0].value = arguments[1]", element("scenario-editor"), json.dumps(edited))
            element("scenario-save").click()
            wait.until(lambda _: "Not saved: configuration.notes[0].identifier: not a valid UUID" in
                       element("scenario-message").text)
            assert fetch(f"/_sandbox/scenario?token={TOKEN}")[1] == before

            # The library's feedback, sent by the C facade's own run against a sandbox: its title is
            # shown as text, its attachment downloads whole.
            assert subprocess.run([client, "sandbox", site + "/api", ca, directory + "/data/bundle"], cwd=directory,
                                  env=dict(os.environ, PALOMIR_SANDBOX_ADMIN_TOKEN=TOKEN), timeout=60).returncode == 0
            wait.until(lambda _: browser.find_elements(By.CSS_SELECTOR, ".feedback-title"))
            assert browser.find_element(By.CSS_SELECTOR, ".feedback-title").text == TITLE
            assert not browser.find_elements(By.CSS_SELECTOR, "#feedback img")
            link = browser.find_element(By.CSS_SELECTOR, "#feedback a.download").get_attribute("href")
            assert fetch(link[len(site):]) == (200, b"line\0\n")

            if os.environ.get("PALOMIR_DASHBOARD_SCREENSHOT"):  # the README's picture
                browser.save_screenshot(os.environ["PALOMIR_DASHBOARD_SCREENSHOT"])
            print("dashboard: all checks passed")
            return 0
        finally:
            if browser:
                browser.quit()
            server.terminate()
            server.wait(timeout=30)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
