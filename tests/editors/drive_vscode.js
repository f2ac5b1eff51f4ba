"use strict";
/* Debugs orders.py in a VS Code that runs in a browser, as a user does: with mouse and keyboard.

   node drive_vscode.js ADDRESS FILE PICTURE

   Prints what it has seen, one line for each thing; exit status 1 when something does not come. */

const path = require("node:path");
const { chromium } = require("playwright-core");

const MILLISECONDS = 60000;
const LINE = 10;                             // `total = sum(...)`

/** Does `action` again until `locator` is there: an editor that is starting swallows keys and clicks. */
async function until(page, locator, action) {
    const end = Date.now() + MILLISECONDS;
    for (;;) {
        await action();
        try {
            await locator.first().waitFor({ state: "visible", timeout: 3000 });
            return;
        } catch (error) {
            if (Date.now() > end)
                throw error;
        }
    }
}

/** The texts of a view's rows. */
const rows = async (page, view) => (await page.locator(`${view} .monaco-list-row`).allInnerTexts()).map(
    (text) => text.split(/\s+/).join(" ").trim());

async function waitForRow(page, view, pattern) {
    const end = Date.now() + MILLISECONDS;
    for (;;) {
        const found = (await rows(page, view)).find((text) => pattern.test(text));
        if (found !== undefined)
            return found;
        if (Date.now() > end)
            throw new Error(`${pattern} is not in ${view}: ${JSON.stringify(await rows(page, view))}`);
        await page.waitForTimeout(100);
    }
}

/** Opens a row that shows more. */
async function expand(page, view, pattern) {
    await waitForRow(page, view, pattern);
    const row = page.locator(`${view} .monaco-list-row`).filter({ hasText: pattern }).first();
    if (await row.getAttribute("aria-expanded") === "false")
        await row.locator(".monaco-tl-twistie").click();
}

async function openFile(page, file) {
    await page.locator(".monaco-workbench").waitFor();
    await until(page, page.locator(`.tab[data-resource-name="${path.basename(file)}"]`), async () => {
        await page.keyboard.press("Escape");
        await page.keyboard.press("Control+P");
        await page.keyboard.type(path.basename(file));
        await page.waitForTimeout(500);
        await page.keyboard.press("Enter");
    });
}

async function clickBreakpoint(page) {
    const number = page.locator(".monaco-editor .line-numbers").filter({ hasText: new RegExp(`^${LINE}$`) }).first();
    const mark = page.locator(".monaco-editor .codicon-debug-breakpoint, .monaco-editor .codicon-debug-breakpoint-unverified");
    await until(page, mark, async () => {
        const margin = await page.locator(".monaco-editor .margin").first().boundingBox();
        const line = await number.boundingBox();
        await page.mouse.click(margin.x + 10, line.y + line.height / 2);
    });
}

async function main([address, file, picture]) {
    const browser = await chromium.launch({ executablePath: process.env.CHROMIUM, args: ["--no-sandbox"] });
    const page = await browser.newPage({ viewport: { width: 1200, height: 760 } });
    page.setDefaultTimeout(MILLISECONDS);
    try {
        await page.goto(address);
        await openFile(page, file);
        await clickBreakpoint(page);
        console.log("a click sets a breakpoint");

        const stopped = page.locator(".debug-top-stack-frame-line");
        await until(page, stopped, async () => {
            if (!await page.locator(".debug-toolbar").isVisible())
                await page.keyboard.press("F5");
        });
        await waitForRow(page, ".debug-call-stack", /^MainThread/);
        await expand(page, ".debug-call-stack", /paused on breakpoint/i);
        await waitForRow(page, ".debug-call-stack", /^price/);
        await waitForRow(page, ".debug-call-stack", /^sell /);
        console.log("the stack is shown");
        await expand(page, ".debug-variables", /^Locals/);
        await waitForRow(page, ".debug-variables", /^order ?= ?\{'tea': 4\.5/);
        console.log("variables are shown");

        await page.locator(".debug-toolbar .codicon-debug-step-over").click();
        await waitForRow(page, ".debug-variables", /^total ?= ?7\.75/);
        console.log("a step shows what it has assigned");
        await page.mouse.move(700, 600);
        await page.screenshot({ path: picture });

        await page.locator(".debug-toolbar .codicon-debug-stop").click();
        await page.locator(".debug-toolbar").waitFor({ state: "hidden" });
        console.log("the session ends");
    } catch (error) {
        await page.screenshot({ path: picture.replace(".png", "-failed.png") });
        throw error;
    } finally {
        await browser.close();
    }
}

main(process.argv.slice(2)).catch((error) => {
    console.error(error);
    process.exitCode = 1;
});
