<?xml version="1.0" encoding="utf-8"?>
<!-- The broker's index page ("/index.xml", "/full") as HTML: the broker, its parent and
     children, its modules (with their methods on the full page), the running calls and the
     modules' own content pages. -->
<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
  <xsl:output method="html" encoding="utf-8" indent="yes"
              doctype-system="about:legacy-compat"/>

  <xsl:template match="/page">
    <html lang="en">
      <head>
        <meta name="viewport" content="width=device-width, initial-scale=1"/>
        <title>Velmo Broker : <xsl:value-of select="broker/name"/></title>
        <!-- Pages are served from the root, beside css/ and xsl/. -->
        <link rel="stylesheet" type="text/css" href="css/velmo.css"/>
      </head>
      <body>
        <header class="banner">
          <p class="brand">Velmo</p>
          <h1>Broker <xsl:value-of select="broker/name"/></h1>
          <p class="address">
            <a href="{broker/href}">
              <xsl:value-of select="broker/ip"/>:<xsl:value-of select="broker/port"/>
            </a>
          </p>
        </header>
        <main>
          <xsl:apply-templates select="parentBroker"/>
          <xsl:apply-templates select="childBrokers"/>
          <xsl:apply-templates select="modules"/>
          <xsl:apply-templates select="tasks"/>
          <xsl:apply-templates select="content"/>
        </main>
      </body>
    </html>
  </xsl:template>

  <xsl:template match="parentBroker">
    <section id="parent">
      <h2>Parent broker</h2>
      <xsl:choose>
        <xsl:when test="normalize-space(href) != ''">
          <p>
            <a href="{href}"><xsl:value-of select="ip"/>:<xsl:value-of select="port"/></a>
          </p>
        </xsl:when>
        <xsl:otherwise>
          <p class="none">This broker has no parent.</p>
        </xsl:otherwise>
      </xsl:choose>
    </section>
  </xsl:template>

  <xsl:template match="childBrokers">
    <section id="children">
      <h2>Child brokers</h2>
      <xsl:choose>
        <xsl:when test="*">
          <ul class="links">
            <xsl:for-each select="*">
              <li><xsl:call-template name="broker-link"/></li>
            </xsl:for-each>
          </ul>
        </xsl:when>
        <xsl:otherwise>
          <p class="none">No child broker is registered.</p>
        </xsl:otherwise>
      </xsl:choose>
    </section>
  </xsl:template>

  <!-- A child broker: its name (or address) linking to its own index page when known. -->
  <xsl:template name="broker-link">
    <xsl:variable name="label">
      <xsl:choose>
        <xsl:when test="normalize-space(name) != ''">
          <xsl:value-of select="name"/>
        </xsl:when>
        <xsl:when test="normalize-space(ip) != ''">
          <xsl:value-of select="ip"/>:<xsl:value-of select="port"/>
        </xsl:when>
        <xsl:otherwise>
          <xsl:value-of select="normalize-space(.)"/>
        </xsl:otherwise>
      </xsl:choose>
    </xsl:variable>
    <xsl:choose>
      <xsl:when test="normalize-space(href) != ''">
        <a href="{href}"><xsl:value-of select="$label"/></a>
      </xsl:when>
      <xsl:when test="normalize-space(ip) != ''">
        <a href="http://{ip}:{port}/index.xml"><xsl:value-of select="$label"/></a>
      </xsl:when>
      <xsl:otherwise>
        <xsl:value-of select="$label"/>
      </xsl:otherwise>
    </xsl:choose>
  </xsl:template>

  <xsl:template match="modules">
    <section id="modules">
      <h2>Modules</h2>
      <xsl:choose>
        <xsl:when test="module">
          <ul class="links">
            <xsl:apply-templates select="module"/>
          </ul>
        </xsl:when>
        <xsl:otherwise>
          <p class="none">No module is registered.</p>
        </xsl:otherwise>
      </xsl:choose>
    </section>
  </xsl:template>

  <xsl:template match="modules/module">
    <li>
      <a class="module" href="{href}"><xsl:value-of select="name"/></a>
      <!-- The full page lists each module's methods as well. -->
      <xsl:if test="methods/method">
        <ul class="methods">
          <xsl:for-each select="methods/method">
            <li>
              <code><xsl:value-of select="name"/></code>
              <xsl:if test="normalize-space(description) != ''">
                <span class="description"> — <xsl:value-of select="description"/></span>
              </xsl:if>
            </li>
          </xsl:for-each>
        </ul>
      </xsl:if>
    </li>
  </xsl:template>

  <xsl:template match="tasks">
    <section id="tasks">
      <h2>Running tasks</h2>
      <xsl:choose>
        <xsl:when test="task">
          <table>
            <thead>
              <tr><th>Module</th><th>Method</th><th>Description</th></tr>
            </thead>
            <tbody>
              <xsl:for-each select="task">
                <tr>
                  <td><a href="{moduleName}.xml"><xsl:value-of select="moduleName"/></a></td>
                  <td>
                    <code>
                      <xsl:choose>
                        <xsl:when test="normalize-space(method) != ''">
                          <xsl:value-of select="method"/>
                        </xsl:when>
                        <xsl:otherwise><xsl:value-of select="name"/></xsl:otherwise>
                      </xsl:choose>
                    </code>
                  </td>
                  <td><xsl:value-of select="description"/></td>
                </tr>
              </xsl:for-each>
            </tbody>
          </table>
        </xsl:when>
        <xsl:otherwise>
          <p class="none">No task is running.</p>
        </xsl:otherwise>
      </xsl:choose>
    </section>
  </xsl:template>

  <xsl:template match="content">
    <xsl:if test="module">
      <section id="content">
        <h2>Content pages</h2>
        <ul class="links">
          <xsl:for-each select="module">
            <li><a href="{href}"><xsl:value-of select="name"/></a></li>
          </xsl:for-each>
        </ul>
      </section>
    </xsl:if>
  </xsl:template>
</xsl:stylesheet>
