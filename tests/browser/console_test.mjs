// The console in headless Chromium: open a drive, select a file, copy it to another drive, see 100%.
//   node console_test.mjs URL SOURCE_DRIVE FILE DEST_DRIVE    (exit 0 on success)
import { chromium } from "playwright-core";

const [url, sourceDrive, fileName, destDrive] = process.argv.slice(2);
const browser = await chromium.launch({ executablePath: process.env.CHROMIUM || "/usr/bin/chromium",
                                        args: ["--no-sandbox", "--disable-gpu", "--no-first-run"] });
const page = await browser.newPage();
const seen = [];   // a request or script the server refuses shows here
page.on("console", (m) => seen.push(`console: ${m.text()}`));
page.on("pageerror", (e) => seen.push(`page error: ${e.message}`));
page.on("response", (r) => r.status() >= 400 && seen.push(`${r.status()} ${r.url()}`));
const row = (name) => `#entries tr[data-base="${name}"]`;
let status = 1;
try {
  page.setDefaultTimeout(20000);
  await page.goto(url);
  await page.waitForSelector(row(sourceDrive));
  const destPath = await page.getAttribute(row(destDrive), "data-path");
  await page.click(`${row(sourceDrive)} a.open`);
  await page.check(`${row(fileName)} input.sel`);
  await page.waitForFunction((f) => document.querySelector("#selection").textContent.includes(f), fileName);
  await page.fill("#dest", destPath);
  await page.click("#copy");
  await page.waitForFunction(() => document.querySelector("#progress-state").textContent.includes("finished"),
                             null, { timeout: 60000 });
  const state = `${(await page.textContent("#progress-state")).trim()} ${await page.textContent("#whole-pct")}`;
  seen.push(`progress: ${state}`);
  if (state !== "finished 100%") throw new Error("the batch ended badly");
  status = 0;
} catch (e) {
  seen.push(`FAILED: ${e.message}`);
  try { seen.push(`request log: ${(await page.textContent("#log")).slice(0, 4000)}`); } catch {}
} finally {
  await browser.close();
}
console.log(seen.join("\n"));
process.exit(status);
