// Draws the broker's pages for a person from the XML pages the broker serves (no XSLT needed)
// and calls module methods through "/?json<Module>.<method>(<arguments>)".
"use strict";

(() => {
  // The memory view asks one call per name each tick: keep both bounded.
  const MEMORY_NAME_LIMIT = 200;
  const MEMORY_PERIOD_MS = 1000;
  const MEMORY_RETRY_MS = 5000;
  const CALLS_AT_ONCE = 4;

  // An element with attributes (properties when the name is one, e.g. textContent) and children.
  function el(tag, attributes = {}, ...children) {
    const node = document.createElement(tag);
    for (const [key, value] of Object.entries(attributes)) {
      if (value === undefined || value === null || value === false) continue;
      if (key in node && typeof node[key] !== "function" && !key.includes("-")) node[key] = value;
      else node.setAttribute(key, value === true ? "" : value);
    }
    node.append(...children.filter((child) => child !== null && child !== undefined));
    return node;
  }

  // The text of the direct child element `name` of `node` ("" when absent).
  function field(node, name) {
    const child = node && node.querySelector(`:scope > ${name}`);
    return child ? child.textContent.trim() : "";
  }

  function children(node, path) {
    return node ? Array.from(node.querySelectorAll(`:scope > ${path}`)) : [];
  }

  async function fetchXml(path) {
    const response = await fetch(path, { cache: "no-store" });
    if (!response.ok) throw new Error(`${path} answered HTTP ${response.status}`);
    const doc = new DOMParser().parseFromString(await response.text(), "application/xml");
    if (doc.querySelector("parsererror")) throw new Error(`${path} is not well-formed XML`);
    return doc.documentElement;
  }

  // Calls a method; `argumentText` is the bracketed argument list in the compact text form.
  async function call(module, method, argumentText) {
    const url = `/?json${module}.${method}(${encodeURIComponent(argumentText)})`;
    const response = await fetch(url, { cache: "no-store" });
    const answer = await response.json();
    if ("error" in answer) throw new Error(answer.error.replace(/\t/g, "").trim());
    return answer.result;
  }

  // The compact text form has no escapes: a string runs to the next quote of its own kind.
  function quote(text) {
    if (!text.includes('"')) return `"${text}"`;
    if (!text.includes("'")) return `'${text}'`;
    throw new Error("A text cannot hold both \" and ' : a call has no way to quote it.");
  }

  // A value as a person reads it, in the same compact form the arguments use.
  function show(value) {
    if (value === null || value === undefined) return "(no value)";
    if (Array.isArray(value)) return `[${value.map(show).join(", ")}]`;
    if (typeof value === "string") return value.includes('"') && value.includes("'") ? JSON.stringify(value) : quote(value);
    if (typeof value === "object" && "binary" in value) {
      return `(binary, ${Math.floor((value.binary.length * 3) / 4)} bytes)`;
    }
    return String(value);
  }

  // How a parameter of a given type is typed in: number, checkbox, text, or compact text.
  function kindOf(type) {
    const t = type.toLowerCase().replace(/^const\s+|\s*&$/g, "").trim();
    if (/^(unsigned\s+)?(int|short|long|long long)$/.test(t)) return "int";
    if (t === "float" || t === "double") return "float";
    if (t === "bool") return "bool";
    if (t === "string" || t === "std::string") return "string";
    return "value";
  }

  function argumentOf(input, kind, name) {
    if (kind === "bool") return input.checked ? "true" : "false";
    if (kind === "string") return quote(input.value);
    if (kind === "value") {
      if (input.value.trim() === "") throw new Error(`Give ${name} a value, e.g. 1, "text" or [1, 2].`);
      return input.value.trim();
    }
    const number = input.valueAsNumber;
    if (Number.isNaN(number)) throw new Error(`${name} needs a number.`);
    if (kind === "int") {
      if (!Number.isInteger(number)) throw new Error(`${name} needs a whole number.`);
      return String(number);
    }
    // A float keeps its point so that it is not read back as an int.
    const text = String(number);
    return /[.e]/i.test(text) ? text : `${text}.0`;
  }

  function pad(number, width = 2) {
    return String(number).padStart(width, "0");
  }

  function formatTime(seconds, microseconds) {
    const d = new Date(seconds * 1000 + Math.floor(microseconds / 1000));
    return `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())} ` +
      `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}.${pad(d.getMilliseconds(), 3)}`;
  }

  function brokerLink(node) {
    const ip = field(node, "ip");
    const port = field(node, "port");
    const name = field(node, "name");
    const label = name ? `${name} (${ip}:${port})` : `${ip}:${port}`;
    return el("a", { href: `http://${ip}:${port}/index.html` }, label);
  }

  function section(id, title, ...content) {
    return el("section", { id, "aria-labelledby": `${id}-title` },
      el("h2", { id: `${id}-title` }, title), ...content);
  }

  function list(items, empty) {
    return items.length ? el("ul", { className: "links" }, ...items.map((item) => el("li", {}, ...item)))
      : el("p", { className: "none" }, empty);
  }

  function drawBroker(page, full) {
    const broker = page.querySelector(":scope > broker");
    const name = field(broker, "name");
    document.title = `Velmo Broker : ${name}`;
    const parent = page.querySelector(":scope > parentBroker");
    const tasks = children(page, "tasks > task");
    const modules = children(page, "modules > module").map((module) => {
      const moduleName = field(module, "name");
      const methods = children(module, "methods > method").map((method) =>
        el("li", {}, el("a", { href: `${moduleName}.html#method-${field(method, "name")}` },
          el("code", {}, field(method, "name"))),
        field(method, "description") ? el("span", { className: "description" },
          ` — ${field(method, "description")}`) : null));
      return [el("a", { className: "module", href: `${moduleName}.html` }, moduleName),
        methods.length ? el("ul", { className: "methods" }, ...methods) : null];
    });
    return [
      el("header", { className: "banner" },
        el("p", { className: "brand" }, "Velmo"),
        el("h1", {}, `Broker ${name}`),
        el("p", { className: "address" }, `${field(broker, "ip")}:${field(broker, "port")} · `,
          full ? el("a", { href: "index.html" }, "Short page") : el("a", { href: "full.html" }, "With every method"),
          " · ", el("a", { href: "index.xml" }, "XML"))),
      section("parent", "Parent broker", field(parent, "ip")
        ? el("p", {}, brokerLink(parent)) : el("p", { className: "none" }, "This broker has no parent.")),
      section("children", "Child brokers",
        list(children(page, "childBrokers > broker").map((child) => [brokerLink(child)]),
          "No child broker is registered.")),
      section("modules", "Modules", list(modules, "No module is registered.")),
      section("tasks", "Running tasks", tasks.length ? el("table", {},
        el("thead", {}, el("tr", {}, el("th", {}, "Module"), el("th", {}, "Method"), el("th", {}, "Description"))),
        el("tbody", {}, ...tasks.map((task) => el("tr", {},
          el("td", {}, el("a", { href: `${field(task, "moduleName")}.html` }, field(task, "moduleName"))),
          el("td", {}, el("code", {}, field(task, "method") || field(task, "name"))),
          el("td", {}, field(task, "description"))))))
        : el("p", { className: "none" }, "No task is running.")),
      section("content", "Content pages", list(children(page, "content > module").map((module) =>
        [el("a", { href: field(module, "href") }, field(module, "name"))]), "No content page.")),
    ];
  }

  function methodForm(module, method) {
    const name = field(method, "name");
    const inputs = children(method, "parameters > parameter").map((parameter, index) => {
      const parameterName = field(parameter, "name") || `argument ${index + 1}`;
      const type = field(parameter, "type");
      const kind = kindOf(type);
      const id = `arg-${name}-${index}`;
      const input = kind === "bool" ? el("input", { type: "checkbox", id, name: parameterName })
        : kind === "int" || kind === "float"
          ? el("input", { type: "number", id, name: parameterName, step: kind === "int" ? "1" : "any" })
          : el("input", {
            type: "text", id, name: parameterName, autocomplete: "off",
            placeholder: kind === "value" ? 'e.g. 1, 2.5, "text", [1, "a"]' : undefined,
          });
      const label = el("label", { htmlFor: id }, parameterName, " ", el("span", { className: "type" }, type));
      return { input, kind, parameterName, row: el("div", { className: "argument" }, label, input) };
    });
    const output = el("output", { className: "answer", htmlFor: inputs.map((item) => item.input.id).join(" ") });
    // The page checks the arguments itself and says what is wrong next to the answer.
    const form = el("form", { className: "call", noValidate: true, "aria-label": `Call ${name}` },
      ...inputs.map((item) => item.row),
      el("button", { type: "submit" }, `Call ${name}`), output);
    form.addEventListener("submit", async (event) => {
      event.preventDefault();
      output.classList.remove("error");
      try {
        const text = `[${inputs.map((item) => argumentOf(item.input, item.kind, item.parameterName)).join(", ")}]`;
        output.textContent = "Calling…";
        output.textContent = `Result: ${show(await call(module, name, text))}`;
      } catch (error) {
        output.classList.add("error");
        output.textContent = `Error: ${error.message}`;
      }
    });
    return form;
  }

  function drawMethod(module, method) {
    const name = field(method, "name");
    const parameters = children(method, "parameters > parameter");
    const result = method.querySelector(":scope > return");
    const examples = children(method, "examples > example").map((example) => example.textContent.trim());
    return el("section", { className: "method", id: `method-${name}`, "aria-labelledby": `method-${name}-title` },
      el("h3", { id: `method-${name}-title` }, el("code", {}, name)),
      el("p", { className: "description" }, field(method, "description") || "No description."),
      el("h4", {}, "Parameters"),
      parameters.length ? el("table", {},
        el("thead", {}, el("tr", {}, el("th", {}, "Name"), el("th", {}, "Type"), el("th", {}, "Description"))),
        el("tbody", {}, ...parameters.map((parameter) => el("tr", {},
          el("td", {}, el("code", {}, field(parameter, "name"))),
          el("td", { className: "type" }, field(parameter, "type")),
          el("td", {}, field(parameter, "description"))))))
        : el("p", { className: "none" }, "None."),
      el("h4", {}, "Returns"),
      el("p", {}, el("span", { className: "type" }, field(result, "type") || "void"),
        field(result, "name") ? " " : "", field(result, "name") ? el("code", {}, field(result, "name")) : null,
        field(result, "description") ? ` — ${field(result, "description")}` : ""),
      examples.length ? el("h4", {}, "Example") : null,
      examples.length ? el("ul", { className: "examples" },
        ...examples.map((example) => el("li", {}, el("code", {}, example)))) : null,
      el("h4", {}, "Try it"),
      methodForm(module, method));
  }

  function drawModule(page) {
    const module = page.querySelector(":scope > module");
    const name = field(module, "name");
    document.title = `Velmo Module : ${name}`;
    const methods = children(module, "methods > method");
    const htmlOf = (xml) => xml.replace(/\.xml$/, ".html");
    const pager = el("nav", { className: "pager", "aria-label": "Modules" },
      field(page, "kxprevious") ? el("a", { href: htmlOf(field(page, "kxprevious")), rel: "prev" }, "← Previous module") : el("span"),
      el("a", { href: "index.html" }, "Broker"),
      field(page, "kxnext") ? el("a", { href: htmlOf(field(page, "kxnext")), rel: "next" }, "Next module →") : el("span"));
    return [
      el("header", { className: "banner" },
        el("p", { className: "brand" }, "Velmo"),
        el("h1", {}, `Module ${name}`),
        el("p", { className: "path" }, el("a", { href: "index.html" }, field(module, "parentbroker")), ` / ${name}`),
        el("p", { className: "summary" }, field(module, "description") || "No description."),
        el("dl", { className: "facts" },
          el("dt", {}, "Version"), el("dd", {}, field(module, "version") || "unknown"),
          el("dt", {}, "Broker"), el("dd", {}, field(module, "parentbroker")),
          el("dt", {}, "Data"), el("dd", {}, el("a", { href: `${name}.xml` }, `${name}.xml`)))),
      pager,
      name === "KXMemory" ? memoryView() : null,
      section("methods", "Methods",
        el("ul", { className: "toc" }, ...methods.map((method) =>
          el("li", {}, el("a", { href: `#method-${field(method, "name")}` }, field(method, "name"))))),
        ...methods.map((method) => drawMethod(name, method))),
    ];
  }

  // Runs `work` on each item with a few calls in flight at a time.
  async function eachAtOnce(items, work) {
    let next = 0;
    const worker = async () => {
      while (next < items.length) await work(items[next++]);
    };
    await Promise.all(Array.from({ length: Math.min(CALLS_AT_ONCE, items.length) }, worker));
  }

  // The memory's names, values, types and times, read again about once a second.
  function memoryView() {
    const status = el("p", { className: "status", role: "status" }, "Reading the memory…");
    const body = el("tbody");
    const table = el("table", { className: "memory" },
      el("caption", {}, "Data stored in the memory"),
      el("thead", {}, el("tr", {}, el("th", { scope: "col" }, "Name"), el("th", { scope: "col" }, "Value"),
        el("th", { scope: "col" }, "Type"), el("th", { scope: "col" }, "Time"))),
      body);
    const known = new Map(); // name -> { time, type }: a type is asked again only when the time moves

    async function refresh() {
      const names = (await call("KXMemory", "getDataListName", "[]")).slice().sort();
      const shown = names.slice(0, MEMORY_NAME_LIMIT);
      const rows = [];
      await eachAtOnce(shown, async (name) => {
        try {
          const [value, seconds, microseconds] = await call("KXMemory", "getTimestamp", `[${quote(name)}]`);
          const time = `${seconds}.${microseconds}`;
          let entry = known.get(name);
          if (!entry || entry.time !== time) {
            entry = { time, type: await call("KXMemory", "getType", `[${quote(name)}]`) };
            known.set(name, entry);
          }
          rows.push({ name, value, type: entry.type, when: formatTime(seconds, microseconds) });
        } catch (error) {
          known.delete(name); // removed meanwhile, or a name no call can quote
        }
      });
      rows.sort((a, b) => (a.name < b.name ? -1 : a.name > b.name ? 1 : 0));
      body.replaceChildren(...rows.map((row) => el("tr", { "data-name": row.name },
        el("th", { scope: "row" }, el("code", {}, row.name)), el("td", { className: "value" }, el("code", {}, show(row.value))),
        el("td", { className: "type" }, row.type), el("td", {}, row.when))));
      for (const name of known.keys()) if (!names.includes(name)) known.delete(name);
      const count = names.length > shown.length ? `the first ${shown.length} of ${names.length} names`
        : `${names.length} name${names.length === 1 ? "" : "s"}`;
      status.textContent = `Showing ${count}; updated at ${formatTime(Date.now() / 1000, 0).slice(11, 19)}.`;
    }

    async function tick() {
      let delay = MEMORY_PERIOD_MS;
      if (!document.hidden) {
        try {
          await refresh();
          status.classList.remove("error");
        } catch (error) {
          status.classList.add("error");
          status.textContent = `The memory cannot be read: ${error.message}`;
          delay = MEMORY_RETRY_MS;
        }
      }
      setTimeout(tick, delay);
    }
    tick();
    return section("memory", "Memory", status, table);
  }

  async function main() {
    const root = document.getElementById("page");
    try {
      let content;
      const brokerPaths = ["/", "/index.html", "/full.html"];
      if (!brokerPaths.includes(location.pathname)) {
        const name = decodeURIComponent(location.pathname.replace(/^\/+/, "").replace(/\.html$/, ""));
        content = drawModule(await fetchXml(`/${encodeURIComponent(name)}.xml`));
      } else {
        const full = location.pathname === "/full.html";
        content = drawBroker(await fetchXml(full ? "/full" : "/index.xml"), full);
      }
      root.replaceChildren(...content.filter(Boolean));
      // The drawing replaced the anchor the address may point to.
      if (location.hash) document.getElementById(location.hash.slice(1))?.scrollIntoView();
    } catch (error) {
      root.replaceChildren(el("p", { className: "brand" }, "Velmo"),
        el("p", { className: "error", role: "alert" }, `This page could not be drawn: ${error.message}`));
    }
    root.removeAttribute("aria-busy");
  }

  main();
})();
